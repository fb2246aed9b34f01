#include "platform/linux/netlink_monitor.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "platform/linux/network_manager_metered_probe.hpp"
#include "reachability/reachability_notification_center.hpp"

namespace terrane::common {
namespace {

constexpr auto kSettleTime = std::chrono::milliseconds(100);
constexpr unsigned kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

base::io::FileDescriptor openChangeSocket() {
    base::io::FileDescriptor socket(
        ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!socket) {
        return {};
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = kGroups;
    if (::bind(socket.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        return {};
    }
    return socket;
}

// Reads what is queued; true when anything (or an overrun, which hides how much) arrived.
bool drain(int socket) {
    std::array<char, 16 * 1024> buffer;
    bool changed = false;
    for (;;) {
        const ssize_t received = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (received > 0 || (received < 0 && errno == ENOBUFS)) {
            changed = true;
            continue;
        }
        if (received < 0 && errno == EINTR) {
            continue;
        }
        return changed;
    }
}

}  // namespace

NetlinkMonitor& NetlinkMonitor::processWide() {
    // Never destroyed: see the class comment.
    static auto* monitor = std::make_unique<NetlinkMonitor>().release();
    return *monitor;
}

optional<std::uint64_t> NetlinkMonitor::addWatcher(Hook hook) {
    std::thread retired;
    optional<std::uint64_t> id;
    {
        const std::lock_guard lock(mutex_);
        if (!session_) {
            auto session = std::make_shared<Session>();
            session->socket = openChangeSocket();
            session->wake = base::io::FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            if (!session->socket || !session->wake) {
                return nullopt;
            }
            // A thread left by a last watcher removed on the monitor thread; it has been told
            // to end and is joined below, outside the lock it may still need.
            retired = std::move(thread_);
            metered_.store(networkManagerReportsMetered());
            session_ = session;
            thread_ = std::thread([this, session] { run(session); });
        }
        id = nextId_++;
        watchers_.emplace(*id, std::move(hook));
    }
    if (retired.joinable()) {
        retired.join();
    }
    return id;
}

void NetlinkMonitor::removeWatcher(std::uint64_t id) {
    std::thread finished;
    {
        const std::lock_guard lock(mutex_);
        if (watchers_.erase(id) == 0 || !watchers_.empty() || !session_) {
            return;
        }
        session_->stopping = true;
        wake(*session_);
        session_.reset();
        if (thread_.get_id() != std::this_thread::get_id()) {
            finished = std::move(thread_);
        }
    }
    if (finished.joinable()) {
        finished.join();
    }
}

void NetlinkMonitor::requestNotification() {
    const std::lock_guard lock(mutex_);
    if (session_) {
        session_->notificationRequested = true;
        wake(*session_);
    }
}

bool NetlinkMonitor::meteredHint() {
    {
        const std::lock_guard lock(mutex_);
        if (session_) {
            return metered_.load();
        }
    }
    return networkManagerReportsMetered();
}

void NetlinkMonitor::wake(const Session& session) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(session.wake.get(), &one, sizeof one);
}

void NetlinkMonitor::run(const std::shared_ptr<Session>& session) {
    ::pthread_setname_np(::pthread_self(), "terrane-netmon");
    using Clock = std::chrono::steady_clock;
    optional<Clock::time_point> settleBy;
    for (;;) {
        int timeout = -1;
        if (settleBy) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(*settleBy - Clock::now());
            timeout = static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
        }
        std::array<pollfd, 2> fds{
            {{session->socket.get(), POLLIN, 0}, {session->wake.get(), POLLIN, 0}}};
        if (::poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
            return;
        }
        bool notify = false;
        if ((fds[1].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t read = ::read(session->wake.get(), &count, sizeof count);
        }
        if ((fds[0].revents & POLLIN) != 0 && drain(session->socket.get()) && !settleBy) {
            settleBy = Clock::now() + kSettleTime;
        }
        const bool settled = settleBy && Clock::now() >= *settleBy;
        if (settled) {
            settleBy.reset();
            metered_.store(networkManagerReportsMetered());
        }
        {
            const std::lock_guard lock(mutex_);
            if (session->stopping) {
                return;
            }
            notify = std::exchange(session->notificationRequested, false);
            if (settled) {
                for (const auto& [id, hook] : watchers_) {
                    if (hook) {
                        hook();
                    }
                }
                notify = true;
            }
        }
        if (notify) {
            ReachabilityNotificationCenter::processWide().post();
        }
    }
}

}  // namespace terrane::common
