#include "offline/worker_thread.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace terrane::common {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

class Probe;

// What a Probe did and on which thread, readable from the test thread.
struct Journal {
    std::mutex mutex;
    std::vector<std::string> entries;
    std::vector<std::thread::id> threads;
    std::optional<Proxy<Probe>> proxy;

    void add(std::string entry) {
        std::lock_guard lock(mutex);
        entries.push_back(std::move(entry));
        threads.push_back(std::this_thread::get_id());
    }
};

// An argument whose end the journal sees.
struct Witness {
    Witness(std::shared_ptr<Journal> journal_, std::string name_)
        : journal(std::move(journal_)), name(std::move(name_)) {}
    std::shared_ptr<Journal> journal;
    std::string name;
    ~Witness() { journal->add("destroyed " + name); }
};

// A worker object that writes down everything that happens to it.
class Probe {
  public:
    Probe(Proxy<Probe> proxy_, std::shared_ptr<Journal> journal_)
        : proxy(std::move(proxy_)), journal(std::move(journal_)) {
        journal->add("constructed");
        std::lock_guard lock(journal->mutex);
        journal->proxy = proxy;
    }
    ~Probe() { journal->add("destroyed"); }

    void keep(std::shared_ptr<Witness> witness) { journal->add("kept " + witness->name); }
    void take(std::unique_ptr<int> value) { journal->add("took " + std::to_string(*value)); }
    void countDown(int remaining) {
        journal->add("count " + std::to_string(remaining));
        if (remaining > 0) {
            proxy.post(TaskPriority::Normal, &Probe::countDown, remaining - 1);
        }
    }
    void waitFor(std::shared_future<void> gate) { gate.wait_for(std::chrono::seconds(10)); }

  private:
    Proxy<Probe> proxy;
    std::shared_ptr<Journal> journal;
};

TEST(WorkerThread, RunsEveryQueuedTaskOnItsOwnThreadByPriorityBeforeItStops) {
    auto journal = std::make_shared<Journal>();
    std::promise<void> release;
    auto worker = std::make_unique<WorkerThread<Probe>>(journal);
    // Held, so that everything below is queued before the worker takes the next task.
    worker->post(TaskPriority::Normal, &Probe::waitFor, release.get_future().share());
    worker->post(TaskPriority::Idle, &Probe::countDown, 0);
    worker->post(TaskPriority::Normal, &Probe::keep, std::make_shared<Witness>(journal, "X"));
    worker->post(TaskPriority::Normal, &Probe::take, std::make_unique<int>(7));
    worker->post(TaskPriority::Normal, &Probe::countDown, 1);
    std::thread destroyer([&] { worker.reset(); });
    // The stop may come before or after the release; the outcome is the same.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release.set_value();
    destroyer.join();
    // Each task and its arguments die right after it ran; follow-ups posted by a task still run.
    EXPECT_THAT(journal->entries, ElementsAre("constructed", "kept X", "destroyed X", "took 7",
                                              "count 1", "count 0", "count 0", "destroyed"));
    EXPECT_NE(journal->threads.front(), std::this_thread::get_id());
    EXPECT_THAT(journal->threads, Each(journal->threads.front()));
}

TEST(WorkerThread, AProxyDropsCallsOnceTheWorkerIsGoneOrWithoutObject) {
    auto journal = std::make_shared<Journal>();
    { WorkerThread<Probe> worker(journal); }
    auto queue = std::make_shared<TaskQueue>();
    for (const Proxy<Probe>& proxy : {*journal->proxy, Proxy<Probe>(nullptr, queue)}) {
        EXPECT_FALSE(proxy.stopping());
        proxy.post(TaskPriority::Normal, &Probe::keep, std::make_shared<Witness>(journal, "late"));
    }
    queue->stop();
    EXPECT_EQ(queue->get(), nullptr);
    EXPECT_THAT(journal->entries,
                ElementsAre("constructed", "destroyed", "destroyed late", "destroyed late"));
}

}  // namespace
}  // namespace terrane::common
