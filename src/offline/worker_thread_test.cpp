#include "offline/worker_thread.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "offline/task_queue.hpp"

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

// A task that only carries a label, so a test can see which task came out of the queue.
class Labelled : public Task {
  public:
    Labelled(int priority_, std::string label_)
        : Task(static_cast<TaskPriority>(priority_)), label(std::move(label_)) {}
    void operator()() override {}
    const std::string label;
};

void put(TaskQueue& queue, int priority, std::string label) {
    queue.put(std::make_unique<Labelled>(priority, std::move(label)));
}

std::string take(TaskQueue& queue) {
    const auto task = queue.get();
    return task ? static_cast<const Labelled&>(*task).label : "<stop>";
}

// The order must be exactly that of stable-sorting every queued task by priority before each
// get: random puts and gets over all 256 priorities, against that sort done literally.
TEST(TaskQueue, HandsOutTasksAsAStableSortByPriorityBeforeEveryGet) {
    std::mt19937 random(20240607);
    std::bernoulli_distribution putNext(0.55);
    TaskQueue queue;
    queue.put(nullptr);  // ignored
    std::deque<std::pair<int, std::string>> reference;
    const auto referenceGet = [&reference] {
        std::stable_sort(reference.begin(), reference.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        std::string label = reference.front().second;
        reference.pop_front();
        return label;
    };
    for (int step = 0; step < 6000; ++step) {
        if (putNext(random) || reference.empty()) {
            // A few priorities dominate, so that FIFO order within a priority matters too.
            const int priority =
                step % 3 == 0 ? static_cast<int>(random() % 256) : 128 + step % 2 * 127;
            reference.emplace_back(priority, std::to_string(step));
            put(queue, priority, std::to_string(step));
        } else {
            ASSERT_EQ(take(queue), referenceGet()) << "at step " << step;
        }
    }
    // After the stop every task still comes out, even one put afterwards, and then only nullptr.
    queue.stop();
    put(queue, 0, "late");
    reference.emplace_back(0, "late");
    while (!reference.empty()) {
        ASSERT_EQ(take(queue), referenceGet());
    }
    EXPECT_EQ(take(queue), "<stop>");
    EXPECT_EQ(take(queue), "<stop>");
}

}  // namespace
}  // namespace terrane::common
