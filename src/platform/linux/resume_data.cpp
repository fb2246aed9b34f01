#include "platform/linux/resume_data.hpp"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "terrane/log/log.hpp"
#include "util/file_io.hpp"

namespace terrane::common {

namespace {

// Tells our files apart from anything else that might sit under the same name.
constexpr const char kFormat[] = "terrane-resume-data";
constexpr int kFormatVersion = 1;

}  // namespace

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
    return base::io::writeFileAtomically(resumeDataPathFor(localPath), encodeResumeData(data));
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
    if (!data || data->url != options.request.url ||
        data->partialPath != partialFilePathFor(options.localPath) || !data->hasValidator()) {
        return nullopt;
    }
    return std::move(*data);
}

void removeResumeData(const std::string& localPath) {
    ::unlink(resumeDataPathFor(localPath).c_str());
}

}  // namespace terrane::common
