#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <utility>

#include "offline/task_queue.hpp"

namespace terrane::common {
namespace {

// The WorkerThread around the queue is shown by the tests that run real services: they stop it
// with calls still queued (which run, and release what they hold, before it joins), and proxies
// whose worker has gone drop late answers with their callbacks (CatalogueTest).

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
