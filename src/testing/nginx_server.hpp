#pragma once

// An nginx of the system, started for a test or a benchmark with a configuration of its own: it
// serves one directory on 127.0.0.1 and a free port, keeps its pid file, logs and temporary files
// in a work directory of the caller, runs in the foreground as a child process and is stopped by
// its pid. Header-only, so that the benchmarks (which link no test code) can use it too.
//
// One thread at a time; the object owns the child process and waits for it on destruction.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "testing/loopback.hpp"

namespace terrane::common::test {

class NginxServer {
  public:
    static constexpr const char* kExecutable = "/usr/sbin/nginx";

    static bool isInstalled() { return ::access(kExecutable, X_OK) == 0; }

    // Serves `root` at "/" and again at "/slow/" at 2 MiB per second per connection, both with
    // "Cache-Control: max-age=3600", so that a test can catch a transfer mid-way. A sendBuffer (for
    // example "32k") caps the socket's send buffer, which on loopback would otherwise take
    // megabytes in one burst before any rate limit applies. Throws std::runtime_error when nginx
    // does not come up.
    NginxServer(const std::filesystem::path& root, std::filesystem::path work,
                const std::string& sendBuffer = "")
        : work_(std::move(work)),
          listenOptions_(sendBuffer.empty() ? "" : " sndbuf=" + sendBuffer) {
        std::filesystem::create_directories(work_);
        // Relative paths are below the work directory, the address in a file of its own that
        // each start on a fresh port rewrites.
        std::ofstream(work_ / "nginx.conf")
            << "daemon off;\nmaster_process off;\npid nginx.pid;\n"
            << "events { worker_connections 1024; }\nhttp {\n  access_log off;\n"
            << "  client_body_temp_path body;\n  proxy_temp_path proxy;\n"
            << "  fastcgi_temp_path fastcgi;\n  uwsgi_temp_path uwsgi;\n  scgi_temp_path scgi;\n"
            << "  default_type application/octet-stream;\n"
            << "  sendfile on;\n  tcp_nopush on;\n  keepalive_requests 100000;\n"
            << "  server {\n    include listen.conf;\n    root " << root.string() << ";\n"
            << "    add_header Cache-Control \"max-age=3600\";\n"
            << "    location /slow/ { alias " << root.string() << "/; limit_rate 2m; }\n  }\n}\n";
        start(5, true);
    }

    ~NginxServer() { stop(); }
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    std::string url(const std::string& path) const { return loopbackUrl(port_, path); }

    // Kills nginx at once: every connection breaks off without a proper end.
    void kill() { end(SIGKILL); }
    // Starts nginx again on the same port.
    void restart() {
        stop();
        start(50, false);
    }
    void stop() { end(SIGTERM); }

  private:
    // Launches nginx until it listens, on a fresh port each time when asked; throws when it never
    // does.
    void start(int attempts, bool freshPort) {
        for (int attempt = 0; attempt < attempts && pid_ <= 0; ++attempt) {
            if (freshPort) {
                port_ = freeLoopbackPort();
            }
            if (!launch()) {
                stop();
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        }
        if (pid_ <= 0) {
            throw std::runtime_error("nginx did not start; see " + (work_ / "error.log").string());
        }
    }

    void end(int signal) {
        if (pid_ > 0) {
            ::kill(pid_, signal);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    // Starts the child and waits until it listens, which it does before it writes its pid file;
    // false when it exited or took too long.
    bool launch() {
        std::ofstream(work_ / "listen.conf")
            << "listen 127.0.0.1:" << port_ << listenOptions_ << ";\n";
        const std::filesystem::path pidFile = work_ / "nginx.pid";
        std::filesystem::remove(pidFile);
        const std::string prefix = work_.string() + "/";
        pid_ = ::fork();
        if (pid_ == 0) {
            // Dies with its parent, even one that crashed, and keeps none of its pipes open.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, STDIN_FILENO);
            ::dup2(null, STDOUT_FILENO);
            ::dup2(null, STDERR_FILENO);
            ::execl(kExecutable, kExecutable, "-p", prefix.c_str(), "-c", "nginx.conf", "-e",
                    "error.log", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        for (int wait = 0; wait < 1000 && pid_ > 0; ++wait) {
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
            } else if (std::filesystem::exists(pidFile)) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    std::filesystem::path work_;
    std::string listenOptions_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace terrane::common::test
