#include "serve_command.hpp"

#include <condition_variable>
#include <cstdio>
#include <mutex>

namespace terrane::tool {

Result<void> runServe(StaticFileServerOptions options, InterruptWatcher& interrupts) {
    const std::string root = options.root.string();
    auto server = StaticFileServer::start(std::move(options));
    if (!server) {
        return common::unexpected(server.error());
    }
    std::mutex mutex;
    std::condition_variable stopped;
    bool stop = false;
    InterruptListener listener(&interrupts, [&] {
        {
            std::lock_guard lock(mutex);
            stop = true;
        }
        stopped.notify_all();
    });
    std::printf("Serving %s on %s (loopback only; Ctrl-C stops)\n", root.c_str(),
                (*server)->url().c_str());
    std::fflush(stdout);
    {
        std::unique_lock lock(mutex);
        stopped.wait(lock, [&] { return stop; });
    }
    (*server)->stop();
    std::printf("Stopped after %llu requests.\n",
                static_cast<unsigned long long>((*server)->requestsServed()));
    std::fflush(stdout);
    return {};
}

}  // namespace terrane::tool
