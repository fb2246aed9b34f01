#include "offline/task_queue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace terrane::common {
namespace {

using ::testing::ElementsAre;

// A task that only carries a label, so a test can see which task came out of the queue.
class Labelled : public Task {
  public:
    Labelled(std::uint8_t priority_, std::string label_)
        : Task(static_cast<TaskPriority>(priority_)), label(std::move(label_)) {}
    void operator()() override {}
    const std::string label;
};

void put(TaskQueue& queue, std::uint8_t priority, std::string label) {
    queue.put(std::make_unique<Labelled>(priority, std::move(label)));
}

std::string labelOf(const std::unique_ptr<Task>& task) {
    return task ? static_cast<const Labelled&>(*task).label : "<null>";
}

// Stops the queue and takes everything left, in the order the worker would run it.
std::vector<std::string> drain(TaskQueue& queue) {
    queue.stop();
    std::vector<std::string> labels;
    while (auto task = queue.get()) {
        labels.push_back(labelOf(task));
    }
    return labels;
}

TEST(TaskQueueOrder, LowerPriorityValuesRunFirstAndEqualOnesInPostingOrder) {
    TaskQueue queue;
    put(queue, 128, "A");
    put(queue, 255, "B");
    put(queue, 128, "C");
    EXPECT_THAT(drain(queue), ElementsAre("A", "C", "B"));
}

TEST(TaskQueueOrder, ALaterTaskWithASmallerValueOvertakesWaitingOnes) {
    TaskQueue queue;
    put(queue, 128, "first");
    put(queue, 255, "idle");
    EXPECT_EQ(labelOf(queue.get()), "first");
    put(queue, 200, "late-1");
    put(queue, 10, "urgent");
    put(queue, 200, "late-2");
    EXPECT_THAT(drain(queue), ElementsAre("urgent", "late-1", "late-2", "idle"));
}

TEST(TaskQueueOrder, ManyTasksOfOnePriorityComeOutFirstInFirstOut) {
    TaskQueue queue;
    std::vector<std::string> posted;
    for (int i = 0; i < 1000; ++i) {
        posted.push_back(std::to_string(i));
        put(queue, 128, posted.back());
    }
    EXPECT_EQ(drain(queue), posted);
}

// The order must be exactly that of stable-sorting every queued task by priority before each
// get. Random puts and gets over all 256 priorities, compared with that sort done literally.
TEST(TaskQueueOrder, MatchesAStableSortByPriorityBeforeEveryGet) {
    std::mt19937 random(20240607);
    std::uniform_int_distribution<int> priorityOf(0, 255);
    std::bernoulli_distribution putNext(0.55);

    TaskQueue queue;
    std::deque<std::pair<int, std::string>> reference;
    auto referenceGet = [&reference] {
        std::stable_sort(reference.begin(), reference.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        std::string label = reference.front().second;
        reference.pop_front();
        return label;
    };

    for (int step = 0; step < 6000; ++step) {
        if (putNext(random) || reference.empty()) {
            // A few priorities dominate, so that FIFO order within a priority matters too.
            const int priority = step % 3 == 0 ? priorityOf(random) : 128 + step % 2 * 127;
            const std::string label = std::to_string(step);
            reference.emplace_back(priority, label);
            put(queue, static_cast<std::uint8_t>(priority), label);
        } else {
            ASSERT_EQ(labelOf(queue.get()), referenceGet()) << "at step " << step;
        }
    }
    std::vector<std::string> expected;
    while (!reference.empty()) {
        expected.push_back(referenceGet());
    }
    EXPECT_EQ(drain(queue), expected);
}

TEST(TaskQueueNullTask, IsIgnored) {
    TaskQueue queue;
    queue.put(nullptr);
    put(queue, 128, "real");
    queue.put(nullptr);
    EXPECT_THAT(drain(queue), ElementsAre("real"));
}

TEST(TaskQueueStop, StillHandsOutEveryQueuedTaskBeforeSayingStop) {
    TaskQueue queue;
    put(queue, 255, "idle");
    put(queue, 128, "normal");
    queue.stop();
    EXPECT_EQ(labelOf(queue.get()), "normal");
    // A task put after the stop request is still handed out while the queue is being drained.
    put(queue, 128, "late");
    EXPECT_EQ(labelOf(queue.get()), "late");
    EXPECT_EQ(labelOf(queue.get()), "idle");
    EXPECT_EQ(queue.get(), nullptr);
    EXPECT_EQ(queue.get(), nullptr);
}

TEST(TaskQueueStop, WakesAGetterWaitingOnAnEmptyQueue) {
    TaskQueue queue;
    std::unique_ptr<Task> received = std::make_unique<Labelled>(0, "untouched");
    std::thread getter([&] { received = queue.get(); });
    queue.stop();
    getter.join();
    EXPECT_EQ(received, nullptr);
}

TEST(TaskQueueThreads, KeepsEachProducersOrderWithinAPriority) {
    TaskQueue queue;
    constexpr int producers = 4;
    constexpr int perProducer = 2000;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&queue, p] {
            for (int i = 0; i < perProducer; ++i) {
                put(queue, i % 2 == 0 ? 128 : 255, std::to_string(p) + ":" + std::to_string(i));
            }
        });
    }
    std::vector<std::string> received;
    for (int n = 0; n < producers * perProducer; ++n) {
        received.push_back(labelOf(queue.get()));
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(drain(queue), ElementsAre());

    std::vector<int> lastSeen(producers * 2, -1);
    for (const auto& label : received) {
        const auto colon = label.find(':');
        const int producer = std::stoi(label.substr(0, colon));
        const int index = std::stoi(label.substr(colon + 1));
        int& last = lastSeen[producer * 2 + index % 2];
        EXPECT_LT(last, index) << label << " came out of order";
        last = index;
    }
}

}  // namespace
}  // namespace terrane::common
