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
    queue.stop();
    while (!reference.empty()) {
        ASSERT_EQ(take(queue), referenceGet());
    }
    EXPECT_EQ(take(queue), "<stop>");
}

TEST(TaskQueue, AfterStopEveryTaskIsStillHandedOutBeforeTheStop) {
    TaskQueue queue;
    put(queue, 255, "idle");
    put(queue, 128, "normal");
    queue.stop();
    EXPECT_TRUE(queue.isStopped());
    EXPECT_EQ(take(queue), "normal");
    put(queue, 128, "late");
    EXPECT_THAT((std::vector{take(queue), take(queue), take(queue), take(queue)}),
                ElementsAre("late", "idle", "<stop>", "<stop>"));
}

TEST(TaskQueue, ProducersOnManyThreadsKeepTheirOrderAndAWaitingGetterWakesAtStop) {
    TaskQueue queue;
    std::vector<std::string> received;
    std::thread consumer([&] {
        for (auto label = take(queue); label != "<stop>"; label = take(queue)) {
            received.push_back(label);
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p) {
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < 2000; ++i) {
                put(queue, i % 2 == 0 ? 128 : 255,
                    std::to_string(p * 2 + i % 2) + ":" + std::to_string(i));
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    queue.stop();
    consumer.join();
    ASSERT_EQ(received.size(), 8000u);
    std::vector<int> lastSeen(8, -1);
    for (const auto& label : received) {
        const auto colon = label.find(':');
        int& last = lastSeen[std::stoi(label.substr(0, colon))];
        const int index = std::stoi(label.substr(colon + 1));
        EXPECT_LT(last, index) << label << " came out of order";
        last = index;
    }
}

}  // namespace
}  // namespace terrane::common
