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
#include <sys/socket.h>
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

    enum class Compression {
        Off,
        // gzip for every type and size, to every client that accepts it, as a server set up to
        // save bandwidth would: entity tags of compressed answers turn weak, bodies go chunked.
        GzipEverything,
    };

    // Serves `root` at "/" (with "Cache-Control: max-age=3600") and again at "/slow/" at
    // slowRate bytes per second per connection, so that a test can catch a transfer mid-way. A
    // sendBuffer (for example "32k") caps the socket's send buffer, which on loopback would
    // otherwise take megabytes in one burst before any rate limit applies. Throws
    // std::runtime_error when nginx does not come up.
    NginxServer(std::filesystem::path root, std::filesystem::path work, std::string slowRate = "2m",
                std::string sendBuffer = "", Compression compression = Compression::Off)
        : root_(std::move(root)),
          work_(std::move(work)),
          slowRate_(std::move(slowRate)),
          sendBuffer_(std::move(sendBuffer)),
          compression_(compression) {
        std::filesystem::create_directories(work_);
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
    // Tries to launch nginx, on a fresh port each time when asked; throws when it never comes up.
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

    void writeConfiguration() const {
        const std::string work = work_.string();
        std::ofstream out(work_ / "nginx.conf", std::ios::trunc);
        out << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
            << "pid " << work << "/nginx.pid;\n"
            << "error_log " << work << "/error.log warn;\n"
            << "events { worker_connections 1024; }\n"
            << "http {\n"
            << "  access_log off;\n";
        for (const char* temporary : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            out << "  " << temporary << "_temp_path " << work << "/" << temporary << ";\n";
        }
        out << "  default_type application/octet-stream;\n"
            << "  sendfile on;\n  tcp_nopush on;\n  keepalive_requests 100000;\n"
            << (compression_ == Compression::GzipEverything
                    ? "  gzip on;\n  gzip_types *;\n  gzip_min_length 1;\n  gzip_proxied any;\n"
                    : "")
            << "  server {\n"
            << "    listen 127.0.0.1:" << port_
            << (sendBuffer_.empty() ? std::string() : " sndbuf=" + sendBuffer_) << ";\n"
            << "    root " << root_.string() << ";\n"
            << "    location / { add_header Cache-Control \"max-age=3600\"; }\n"
            << "    location /slow/ { alias " << root_.string() << "/; limit_rate " << slowRate_
            << "; }\n"
            << "  }\n"
            << "}\n";
    }

    // Starts the child and waits until it accepts connections; false when it exited instead.
    bool launch() {
        writeConfiguration();
        const std::string prefix = work_.string() + "/";
        const std::string configuration = (work_ / "nginx.conf").string();
        const std::string errorLog = (work_ / "error.log").string();
        pid_ = ::fork();
        if (pid_ == 0) {
            // Dies with its parent, even one that crashed, and keeps none of its pipes open.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, STDIN_FILENO);
            ::dup2(null, STDOUT_FILENO);
            ::dup2(null, STDERR_FILENO);
            ::execl(kExecutable, kExecutable, "-p", prefix.c_str(), "-c", configuration.c_str(),
                    "-e", errorLog.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        if (pid_ < 0) {
            return false;
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return false;
            }
            const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
            const sockaddr_in address = loopbackAddress(port_);
            const bool accepts =
                ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
            ::close(probe);
            if (accepts) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    std::filesystem::path root_;
    std::filesystem::path work_;
    std::string slowRate_;
    std::string sendBuffer_;
    Compression compression_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace terrane::common::test
