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

using ::testing::ElementsAre;

class Probe;

// What a Probe did and where, readable from the test thread.
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
    std::vector<std::string> snapshot() {
        std::lock_guard lock(mutex);
        return entries;
    }
};

// An argument whose end the journal sees.
struct Witness {
    Witness(std::shared_ptr<Journal> journal_, std::string name_)
        : journal(std::move(journal_)), name(std::move(name_)) {}
    ~Witness() { journal->add("destroyed " + name); }
    std::shared_ptr<Journal> journal;
    std::string name;
};

// A worker object that writes down everything that happens to it.
class Probe {
  public:
    Probe(Proxy<Probe> proxy_, std::shared_ptr<Journal> journal_, std::string name)
        : proxy(std::move(proxy_)), journal(std::move(journal_)) {
        journal->add("constructed " + name);
        std::lock_guard lock(journal->mutex);
        journal->proxy = proxy;
    }
    ~Probe() { journal->add("destroyed"); }

    void record(const std::string& entry) { journal->add(entry); }
    void keep(std::shared_ptr<Witness> witness) { journal->add("kept " + witness->name); }
    void take(std::unique_ptr<int> value) { journal->add("took " + std::to_string(*value)); }
    void countDown(int remaining) {
        journal->add("count " + std::to_string(remaining));
        if (remaining > 0) {
            proxy.post(TaskPriority::Normal, &Probe::countDown, remaining - 1);
        }
    }
    void waitFor(std::shared_future<void> gate) {
        gate.wait_for(std::chrono::seconds(10));  // deadlock guard
    }
    void signalThenWaitFor(std::shared_ptr<std::promise<void>> started,
                           std::shared_future<void> gate) {
        started->set_value();
        waitFor(std::move(gate));
    }

  private:
    Proxy<Probe> proxy;
    std::shared_ptr<Journal> journal;
};

TEST(WorkerThreadLife, ConstructsRunsAndDestroysTheObjectOnItsOwnThread) {
    auto journal = std::make_shared<Journal>();
    {
        WorkerThread<Probe> worker(journal, std::string("probe"));
        worker.post(TaskPriority::Normal, &Probe::record, std::string("task"));
    }
    EXPECT_THAT(journal->entries, ElementsAre("constructed probe", "task", "destroyed"));
    const auto workerThread = journal->threads.front();
    EXPECT_NE(workerThread, std::this_thread::get_id());
    EXPECT_THAT(journal->threads, ElementsAre(workerThread, workerThread, workerThread));
}

TEST(WorkerThreadLife, RunsTasksByPriorityThenPostingOrder) {
    auto journal = std::make_shared<Journal>();
    std::promise<void> release;
    {
        WorkerThread<Probe> worker(journal, std::string("probe"));
        // Hold the worker so that everything below is queued before it takes the next task.
        worker.post(TaskPriority::Normal, &Probe::waitFor, release.get_future().share());
        worker.post(TaskPriority::Normal, &Probe::record, std::string("A"));
        worker.post(TaskPriority::Idle, &Probe::record, std::string("B"));
        worker.post(TaskPriority::Normal, &Probe::record, std::string("C"));
        release.set_value();
    }
    EXPECT_THAT(journal->entries, ElementsAre("constructed probe", "A", "C", "B", "destroyed"));
}

TEST(WorkerThreadLife, DrainsEveryQueuedTaskBeforeStopping) {
    auto journal = std::make_shared<Journal>();
    std::promise<void> release;
    auto worker = std::make_unique<WorkerThread<Probe>>(journal, std::string("probe"));
    worker->post(TaskPriority::Normal, &Probe::waitFor, release.get_future().share());
    std::vector<std::string> expected{"constructed probe"};
    for (int i = 0; i < 100; ++i) {
        worker->post(TaskPriority::Normal, &Probe::record, "task " + std::to_string(i));
        expected.push_back("task " + std::to_string(i));
    }
    expected.push_back("destroyed");

    std::promise<void> destroying;
    std::thread destroyer([&] {
        destroying.set_value();
        worker.reset();
    });
    destroying.get_future().wait();
    // Gives the destroyer time to request the stop while the tasks are still queued; the outcome
    // must be the same either way.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release.set_value();
    destroyer.join();
    EXPECT_EQ(journal->entries, expected);
}

TEST(WorkerThreadLife, DestroysEachTaskRightAfterRunningIt) {
    auto journal = std::make_shared<Journal>();
    {
        WorkerThread<Probe> worker(journal, std::string("probe"));
        worker.post(TaskPriority::Normal, &Probe::keep, std::make_shared<Witness>(journal, "X"));
        worker.post(TaskPriority::Normal, &Probe::record, std::string("next"));
    }
    EXPECT_THAT(journal->entries,
                ElementsAre("constructed probe", "kept X", "destroyed X", "next", "destroyed"));
}

TEST(WorkerThreadLife, MovesMoveOnlyArgumentsIntoTheCall) {
    auto journal = std::make_shared<Journal>();
    {
        WorkerThread<Probe> worker(journal, std::string("probe"));
        worker.post(TaskPriority::Normal, &Probe::take, std::make_unique<int>(7));
    }
    EXPECT_THAT(journal->entries, ElementsAre("constructed probe", "took 7", "destroyed"));
}

TEST(WorkerProxy, LetsTheObjectPostFollowUpsToItself) {
    auto journal = std::make_shared<Journal>();
    {
        WorkerThread<Probe> worker(journal, std::string("probe"));
        worker.post(TaskPriority::Normal, &Probe::countDown, 2);
    }
    EXPECT_THAT(journal->entries,
                ElementsAre("constructed probe", "count 2", "count 1", "count 0", "destroyed"));
}

TEST(WorkerProxy, PostsFromOtherThreadsRunOnTheWorkerThread) {
    auto journal = std::make_shared<Journal>();
    std::promise<void> release;
    auto worker = std::make_unique<WorkerThread<Probe>>(journal, std::string("probe"));
    auto started = std::make_shared<std::promise<void>>();
    auto running = started->get_future();
    worker->post(TaskPriority::Normal, &Probe::signalThenWaitFor, started,
                 release.get_future().share());
    running.wait();  // the object exists and has published its proxy
    Proxy<Probe> proxy = [&] {
        std::lock_guard lock(journal->mutex);
        return *journal->proxy;
    }();
    std::thread poster([proxy] {
        proxy.post(TaskPriority::Normal, &Probe::record, std::string("from elsewhere"));
    });
    poster.join();
    release.set_value();
    worker.reset();
    EXPECT_THAT(journal->entries, ElementsAre("constructed probe", "from elsewhere", "destroyed"));
    EXPECT_EQ(journal->threads[1], journal->threads[0]);
}

TEST(WorkerProxy, DropsCallsOnceTheWorkerIsGoneAndDestroysTheirArguments) {
    auto journal = std::make_shared<Journal>();
    { WorkerThread<Probe> worker(journal, std::string("probe")); }
    Proxy<Probe> proxy = *journal->proxy;
    auto witness = std::make_shared<Witness>(journal, "late");
    std::weak_ptr<Witness> watch = witness;

    proxy.post(TaskPriority::Normal, &Probe::keep, std::move(witness));

    EXPECT_TRUE(watch.expired());
    EXPECT_THAT(journal->entries, ElementsAre("constructed probe", "destroyed", "destroyed late"));
}

TEST(WorkerProxy, WithoutAnObjectDropsCallsAndDestroysTheirArguments) {
    auto journal = std::make_shared<Journal>();
    auto queue = std::make_shared<TaskQueue>();
    const Proxy<Probe> proxy(nullptr, queue);
    auto witness = std::make_shared<Witness>(journal, "orphan");
    std::weak_ptr<Witness> watch = witness;

    proxy.post(TaskPriority::Normal, &Probe::keep, std::move(witness));

    EXPECT_TRUE(watch.expired());
    queue->stop();
    EXPECT_EQ(queue->get(), nullptr);
    EXPECT_THAT(journal->snapshot(), ElementsAre("destroyed orphan"));
}

}  // namespace
}  // namespace terrane::common
