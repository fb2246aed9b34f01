#pragma once

#include <chrono>
#include <string>
#include <terrane/expected.hpp>

#include "redactor.hpp"
#include "tool_error.hpp"

namespace terrane::tool {

class InterruptWatcher;

// The global options as given on the command line, before anything is checked.
struct GlobalOptions {
    std::string storage;
    std::string baseUrl;
    std::string user;
    std::string tokenFile;
    bool verbose = false;
    bool json = false;
    // How long to wait for another process that uses the same storage tree.
    unsigned waitSeconds = 10;
};

// What every command that talks to the offline service works with, resolved and checked.
// Built on the main thread; commands read it there.
struct ToolContext {
    // The service path: the offline data of every account lives below it.
    std::string storage;
    // Empty: the library's built-in catalogue endpoint.
    std::string baseUrl;
    std::string user;
    // Never printed: every text shown to the user goes through `redact`.
    std::string token;
    bool verbose = false;
    bool json = false;
    std::chrono::seconds wait{10};
    Redactor redact;
    // Owned by main(); lives for the whole run.
    InterruptWatcher* interrupts = nullptr;
};

// $XDG_DATA_HOME/terrane when that variable holds an absolute path, else ~/.local/share/terrane;
// an error when neither can be worked out.
Result<std::string> defaultStorageDirectory();

// The access token: the first line of `tokenFile` when one is named (surrounding white space
// removed), else $TERRANE_ACCESS_TOKEN, else empty. A token file that cannot be read, or holds
// nothing, is an error.
Result<std::string> readAccessToken(const std::string& tokenFile);

// Creates the directory if needed and proves that files can be made in it.
Result<void> prepareStorageDirectory(const std::string& path);

// Accepts empty (the built-in endpoint) and http:// or https:// addresses.
Result<void> checkBaseUrl(const std::string& baseUrl);

// Resolves the storage directory, reads the token and checks the base URL (trailing slashes
// removed): everything a command that runs the offline service needs before it starts. Creates
// nothing: the commands that store packs call prepareStorageDirectory.
Result<ToolContext> resolveContext(const GlobalOptions& options, InterruptWatcher* interrupts);

}  // namespace terrane::tool
