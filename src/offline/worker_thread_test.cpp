#include "offline/worker_thread.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <random>
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
