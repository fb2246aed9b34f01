#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "terrane/client/client_clock.hpp"

namespace terrane::common {

// The mailbox and timer list of an OfflineClient's thread: jobs posted from any thread run on
// that thread in posting order, timers when the client's clock reaches them. Held by shared
// pointer; the service's observers and the network listener keep weak ones, so that whatever
// they post after the client is gone is dropped.
class ClientLoop {
  public:
    using Job = std::function<void()>;
    using TimePoint = ClientClock::TimePoint;

    explicit ClientLoop(std::shared_ptr<ClientClock> clock);
    ~ClientLoop();
    ClientLoop(const ClientLoop&) = delete;
    ClientLoop& operator=(const ClientLoop&) = delete;

    // Any thread. False, and the job is destroyed unrun, once the loop is closed.
    bool post(Job job);
    // Any thread. Runs `job` once the clock reaches `due`, unless the loop ends first.
    void postAt(TimePoint due, Job job);

    // The client's thread: runs jobs and due timers until close(), then the jobs posted before
    // it. Timers not yet due are dropped.
    void run();
    // Any thread.
    void close();

    const ClientClock& clock() const { return *clock_; }

  private:
    void wake();

    std::shared_ptr<ClientClock> clock_;
    std::uint64_t subscription_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Job> jobs_;
    std::multimap<TimePoint, Job> timers_;
    bool closed_ = false;
};

}  // namespace terrane::common
