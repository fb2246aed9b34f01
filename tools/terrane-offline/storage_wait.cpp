#include "storage_wait.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <terrane/offline/offline_service.hpp>
#include <thread>

namespace terrane::tool {

using namespace std::chrono_literals;

Result<void> waitForStorage(const ToolContext& context, const std::string& baseUrl,
                            const std::string& user) {
    common::OfflineServiceOptions options;
    options.username = user;
    options.accessToken = context.token;
    if (!baseUrl.empty()) {
        options.baseURL = baseUrl;
    }
    const bool terminal = ::isatty(STDERR_FILENO) == 1;
    const auto deadline = std::chrono::steady_clock::now() + context.wait;
    bool announced = false;
    while (true) {
        const auto holder = common::OfflineService::findStorageHolder(context.storage, options);
        if (!holder) {
            if (announced) {
                std::fputs("\r\033[K", stderr);
            }
            return {};
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            if (announced) {
                std::fputs("\r\033[K", stderr);
            }
            return fail(BadInput, common::storageInUseMessage(*holder));
        }
        if (terminal && !announced) {
            const std::string who =
                holder->pid ? "process " + std::to_string(*holder->pid) : "another process";
            std::fprintf(stderr, "waiting for %s, which uses %s ...", who.c_str(),
                         holder->path.c_str());
            std::fflush(stderr);
            announced = true;
        }
        std::this_thread::sleep_for(100ms);
    }
}

}  // namespace terrane::tool
