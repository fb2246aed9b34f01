#include "platform/linux/resume_data.hpp"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "terrane/log/log.hpp"
#include "util/file_descriptor.hpp"
#include "util/file_io.hpp"

namespace terrane::common {

namespace {

// Tells our files apart from anything else that might sit under the same name.
constexpr const char kFormat[] = "terrane-resume-data";
constexpr int kFormatVersion = 1;
constexpr std::string_view kTokenParameter = "access_token";

unexpected<std::string> systemError(int error) {
    return unexpected(std::generic_category().message(error));
}

// Like base::io::writeFileAtomically (temporary file beside the target, flushed, renamed, the
// directory flushed), but the file is created 0600 whatever the umask: mkstemp's mode.
expected<void, std::string> writePrivateFileAtomically(const std::filesystem::path& path,
                                                       std::string_view contents) {
    std::string temporary =
        (path.parent_path() / ("." + path.filename().string() + ".tmp-XXXXXX")).string();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        return systemError(errno);
    }
    base::io::FileDescriptor file(fd);
    int error = base::io::writeAll(file.get(), contents);
    if (error == 0 && ::fsync(file.get()) != 0) {
        error = errno;
    }
    if (const int closeError = file.close(); error == 0) {
        error = closeError;
    }
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(temporary.c_str());
        return systemError(error);
    }
    const std::string directory = path.parent_path().empty() ? "." : path.parent_path().string();
    base::io::FileDescriptor directoryFile(
        ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directoryFile) {
        (void)::fsync(directoryFile.get());  // best effort: the data itself is whole already
    }
    return {};
}

}  // namespace

std::string resumeUrlFor(std::string_view url) {
    const auto question = url.find('?');
    if (question == std::string_view::npos) {
        return std::string(url);
    }
    const auto hash = url.find('#', question);
    const std::string_view query =
        url.substr(question + 1,
                   hash == std::string_view::npos ? std::string_view::npos : hash - question - 1);
    std::string kept;
    std::size_t start = 0;
    while (start <= query.size()) {
        auto end = query.find('&', start);
        if (end == std::string_view::npos) {
            end = query.size();
        }
        const std::string_view parameter = query.substr(start, end - start);
        const std::string_view name = parameter.substr(0, parameter.find('='));
        if (name != kTokenParameter && !parameter.empty()) {
            if (!kept.empty()) {
                kept += '&';
            }
            kept += parameter;
        }
        start = end + 1;
    }
    std::string result(url.substr(0, question));
    if (!kept.empty()) {
        result += '?' + kept;
    }
    if (hash != std::string_view::npos) {
        result += url.substr(hash);
    }
    return result;
}

std::string resumeDataPathFor(const std::string& localPath) {
    return localPath + ".rd";
}

std::string partialFilePathFor(const std::string& localPath) {
    return localPath + ".part";
}

std::string encodeResumeData(const ResumeData& data) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("format");
    writer.String(kFormat);
    writer.Key("version");
    writer.Int(kFormatVersion);
    writer.Key("url");
    writer.String(data.url);
    writer.Key("partialPath");
    writer.String(data.partialPath);
    writer.Key("bytes");
    writer.Uint64(data.bytes);
    writer.Key("etag");
    writer.String(data.etag);
    writer.Key("lastModified");
    writer.String(data.lastModified);
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

expected<ResumeData, std::string> decodeResumeData(std::string_view text) {
    rapidjson::Document document;
    document.Parse(text.data(), text.size());
    if (document.HasParseError() || !document.IsObject()) {
        return unexpected(std::string("not a JSON object"));
    }
    const auto format = document.FindMember("format");
    if (format == document.MemberEnd() || !format->value.IsString() ||
        std::string_view(format->value.GetString()) != kFormat) {
        return unexpected(std::string("not resume data"));
    }
    const auto version = document.FindMember("version");
    if (version == document.MemberEnd() || !version->value.IsInt() ||
        version->value.GetInt() != kFormatVersion) {
        return unexpected(std::string("unknown version"));
    }
    ResumeData data;
    const auto textField = [&](const char* name, std::string& target) {
        const auto member = document.FindMember(name);
        if (member == document.MemberEnd() || !member->value.IsString()) {
            return false;
        }
        target.assign(member->value.GetString(), member->value.GetStringLength());
        return true;
    };
    if (!textField("url", data.url) || !textField("partialPath", data.partialPath) ||
        !textField("etag", data.etag) || !textField("lastModified", data.lastModified)) {
        return unexpected(std::string("missing field"));
    }
    const auto bytes = document.FindMember("bytes");
    if (bytes == document.MemberEnd() || !bytes->value.IsUint64()) {
        return unexpected(std::string("missing field"));
    }
    data.bytes = bytes->value.GetUint64();
    return data;
}

expected<void, std::string> storeResumeData(const std::string& localPath, const ResumeData& data) {
    ResumeData stored = data;
    stored.url = resumeUrlFor(data.url);
    return writePrivateFileAtomically(resumeDataPathFor(localPath), encodeResumeData(stored));
}

optional<ResumeData> loadResumeData(const DownloadOptions& options) {
    const std::string path = resumeDataPathFor(options.localPath);
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return nullopt;
    }
    const auto text = base::io::readFile(path);
    if (!text) {
        Log::debug("Error getting resume data: " + text.error(), std::string("http"));
        return nullopt;
    }
    auto data = decodeResumeData(*text);
    if (!data || resumeUrlFor(data->url) != resumeUrlFor(options.request.url) ||
        data->partialPath != partialFilePathFor(options.localPath) || !data->hasValidator()) {
        return nullopt;
    }
    return std::move(*data);
}

void removeResumeData(const std::string& localPath) {
    ::unlink(resumeDataPathFor(localPath).c_str());
}

}  // namespace terrane::common
