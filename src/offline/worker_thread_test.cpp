#include "offline/worker_thread.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "offline/task_queue.hpp"

namespace terrane::common {
namespace {

using ::testing::ElementsAre;

// What a Probe did, and on which thread; readable from the test thread.
struct Journal {
    std::mutex mutex;
    std::vector<std::string> entries;
    std::vector<std::thread::id> threads;
    void add(std::string entry) {
        std::lock_guard lock(mutex);
        entries.push_back(std::move(entry));
        threads.push_back(std::this_thread::get_id());
    }
};

// An argument whose end the journal sees.
struct Witness {
    std::shared_ptr<Journal> journal;
    std::string name;
    ~Witness() { journal->add("destroyed " + name); }
};

class Probe {
  public:
    Probe(Proxy<Probe> proxy_, std::shared_ptr<Journal> journal_, Proxy<Probe>* keepProxy)
        : proxy(std::move(proxy_)), journal(std::move(journal_)) {
        *keepProxy = proxy;
    }
    ~Probe() { journal->add("destroyed"); }
    void keep(const std::shared_ptr<Witness>& witness) { journal->add("kept " + witness->name); }
    void countDown(int remaining) {
        journal->add("count " + std::to_string(remaining));
        if (remaining > 0) {
            proxy.post(TaskPriority::Normal, &Probe::countDown, remaining - 1);
        }
    }
    void waitFor(const std::shared_future<void>& gate) { gate.wait(); }

  private:
    Proxy<Probe> proxy;
    std::shared_ptr<Journal> journal;
};

// Tasks run on the worker's own thread by priority, each argument dies right after its task, and
// the queue drains (follow-ups included) before the worker goes; after that a proxy drops calls.
TEST(WorkerThread, RunsQueuedTasksByPriorityOnItsThreadUntilDrainedThenProxiesDropCalls) {
    auto journal = std::make_shared<Journal>();
    Proxy<Probe> kept;
    std::promise<void> release;
    {
        WorkerThread<Probe> worker(journal, &kept);
        worker.post(TaskPriority::Normal, &Probe::waitFor, release.get_future().share());
        worker.post(TaskPriority::Idle, &Probe::countDown, 0);
        worker.post(TaskPriority::Normal, &Probe::keep, std::make_shared<Witness>(journal, "X"));
        worker.post(TaskPriority::Normal, &Probe::countDown, 1);
        release.set_value();
    }
    kept.post(TaskPriority::Normal, &Probe::keep, std::make_shared<Witness>(journal, "late"));
    EXPECT_THAT(journal->entries, ElementsAre("kept X", "destroyed X", "count 1", "count 0",
                                              "count 0", "destroyed", "destroyed late"));
    EXPECT_NE(journal->threads.front(), std::this_thread::get_id());
    EXPECT_EQ(journal->threads.front(), journal->threads[5]);
}

// A task put while others are queued is sorted in before the next get, not behind them.
TEST(TaskQueue, ATaskPutWhileOthersWaitIsSortedInBeforeTheNextGet) {
    Journal journal;
    TaskQueue queue;
    queue.put(makeTask(TaskPriority::Idle, &journal, &Journal::add, std::string()));
    queue.put(makeTask(TaskPriority::Idle, &journal, &Journal::add, std::string()));
    queue.get();
    queue.put(makeTask(TaskPriority::Normal, &journal, &Journal::add, std::string()));
    EXPECT_EQ(queue.get()->priority, TaskPriority::Normal);
}

}  // namespace
}  // namespace terrane::common
