#include "interrupt_watcher.hpp"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>

#include "tool_error.hpp"

namespace terrane::tool {

namespace {

sigset_t interruptSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

InterruptWatcher::InterruptWatcher() {
    const sigset_t signals = interruptSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signalDescriptor_ = ::signalfd(-1, &signals, SFD_CLOEXEC);
    stopDescriptor_ = ::eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { run(); });
}

InterruptWatcher::~InterruptWatcher() {
    const std::uint64_t one = 1;
    if (stopDescriptor_ >= 0) {
        (void)!::write(stopDescriptor_, &one, sizeof one);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    if (signalDescriptor_ >= 0) {
        ::close(signalDescriptor_);
    }
    if (stopDescriptor_ >= 0) {
        ::close(stopDescriptor_);
    }
}

void InterruptWatcher::setListener(std::function<void()> listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

void InterruptWatcher::run() {
    if (signalDescriptor_ < 0 || stopDescriptor_ < 0) {
        return;
    }
    std::array<pollfd, 2> descriptors{
        {{signalDescriptor_, POLLIN, 0}, {stopDescriptor_, POLLIN, 0}}};
    while (true) {
        if (::poll(descriptors.data(), descriptors.size(), -1) < 0) {
            continue;
        }
        if ((descriptors[1].revents & POLLIN) != 0) {
            return;
        }
        if ((descriptors[0].revents & POLLIN) == 0) {
            continue;
        }
        signalfd_siginfo info{};
        if (::read(signalDescriptor_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
            continue;
        }
        count_.fetch_add(1);
        std::lock_guard lock(mutex_);
        if (!listener_) {
            std::_Exit(Interrupted);
        }
        listener_();
    }
}

}  // namespace terrane::tool
