#include "options.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace terrane::tool {

namespace fs = std::filesystem;

namespace {

std::string trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

std::string quoted(const std::string& path) {
    return "'" + path + "'";
}

}  // namespace

Result<std::string> defaultStorageDirectory() {
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
        return (fs::path(xdg) / "terrane").string();
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return (fs::path(home) / ".local" / "share" / "terrane").string();
    }
    return fail(BadInput,
                "no storage directory: neither XDG_DATA_HOME nor HOME is set; use --storage DIR");
}

Result<std::string> readAccessToken(const std::string& tokenFile) {
    if (tokenFile.empty()) {
        const char* fromEnvironment = std::getenv("TERRANE_ACCESS_TOKEN");
        return fromEnvironment == nullptr ? std::string() : trim(fromEnvironment);
    }
    std::error_code error;
    if (fs::is_directory(tokenFile, error)) {
        return fail(BadInput, "cannot read token file " + quoted(tokenFile) + ": Is a directory");
    }
    std::ifstream in(tokenFile, std::ios::binary);
    if (!in) {
        return fail(BadInput,
                    "cannot read token file " + quoted(tokenFile) + ": " + std::strerror(errno));
    }
    std::string firstLine;
    std::getline(in, firstLine);
    std::string token = trim(firstLine);
    if (token.empty()) {
        return fail(BadInput, "token file " + quoted(tokenFile) + " holds no token");
    }
    return token;
}

Result<void> prepareStorageDirectory(const std::string& path) {
    const auto problem = [&path](const std::string& reason) {
        return fail(BadInput, "storage directory " + quoted(path) + " is not usable: " + reason);
    };
    std::error_code error;
    fs::create_directories(path, error);
    if (error) {
        return problem(error.message());
    }
    if (!fs::is_directory(path, error)) {
        return problem("Not a directory");
    }
    // access() would say yes to root for a read-only mount; making a file is the real test.
    std::string probe = (fs::path(path) / ".terrane-offline-XXXXXX").string();
    const int descriptor = ::mkstemp(probe.data());
    if (descriptor < 0) {
        return problem(std::strerror(errno));
    }
    ::close(descriptor);
    ::unlink(probe.c_str());
    return {};
}

Result<void> checkBaseUrl(const std::string& baseUrl) {
    if (baseUrl.empty() || baseUrl.starts_with("http://") || baseUrl.starts_with("https://")) {
        return {};
    }
    return fail(Usage, "--base-url must be an http:// or https:// address, not " + quoted(baseUrl));
}

Result<ToolContext> resolveContext(const GlobalOptions& options, InterruptWatcher* interrupts) {
    ToolContext context;
    // "http://host/" and "http://host" are one account.
    context.baseUrl = options.baseUrl;
    while (context.baseUrl.ends_with('/') && !context.baseUrl.ends_with("://")) {
        context.baseUrl.pop_back();
    }
    context.user = options.user;
    context.verbose = options.verbose;
    context.json = options.json;
    context.wait = std::chrono::seconds(options.waitSeconds);
    context.interrupts = interrupts;
    if (auto checked = checkBaseUrl(options.baseUrl); !checked) {
        return common::unexpected(checked.error());
    }
    if (options.storage.empty()) {
        auto storage = defaultStorageDirectory();
        if (!storage) {
            return common::unexpected(storage.error());
        }
        context.storage = *storage;
    } else {
        // Absolute, so that the pack paths the tool prints can be used from anywhere.
        std::error_code error;
        const fs::path absolute = fs::absolute(options.storage, error);
        context.storage = error ? options.storage : absolute.lexically_normal().string();
    }
    auto token = readAccessToken(options.tokenFile);
    if (!token) {
        return common::unexpected(token.error());
    }
    context.token = *token;
    context.redact = Redactor(context.token);
    return context;
}

}  // namespace terrane::tool
