// Throughput of the offline worker's task queue.
//
// WorkerThreadPostAndDrain: one producer posts 1,000,000 calls, priorities 128 and 255
// interleaved, to a WorkerThread, whose destruction waits until all have run.
//
// QueueWithConsumer/QueuePrefilled compare TaskQueue with a literal queue that stable-sorts all
// its tasks on every get, over 20,000 tasks: once with a consumer thread running alongside the
// producer, once with every task queued before the first get (the sorting queue's worst case:
// it is quadratic in the queue length).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "bench_results.hpp"
#include "offline/task.hpp"
#include "offline/task_queue.hpp"
#include "offline/worker_thread.hpp"

namespace {

using terrane::common::Proxy;
using terrane::common::Task;
using terrane::common::TaskPriority;
using terrane::common::TaskQueue;
using terrane::common::WorkerThread;

TaskPriority priorityOf(std::int64_t i) {
    return i % 2 == 0 ? TaskPriority::Normal : TaskPriority::Idle;
}

// The worker object: counts the calls it receives.
class Sink {
  public:
    Sink(Proxy<Sink>, std::uint64_t* total_) : total(total_) {}
    ~Sink() { *total += count; }
    void take(std::uint64_t value) { count += value; }

  private:
    std::uint64_t* total;
    std::uint64_t count = 0;
};

// Best tasks per second of one round, for the summary table.
double bestTasksPerSecond = 0;

void WorkerThreadPostAndDrain(benchmark::State& state) {
    const std::int64_t tasks = state.range(0);
    std::uint64_t total = 0;
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        {
            WorkerThread<Sink> worker(&total);
            for (std::int64_t i = 0; i < tasks; ++i) {
                worker.post(priorityOf(i), &Sink::take, std::uint64_t{1});
            }
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        bestTasksPerSecond = std::max(bestTasksPerSecond, static_cast<double>(tasks) / seconds);
    }
    if (total != static_cast<std::uint64_t>(tasks * state.iterations())) {
        state.SkipWithError("tasks were lost");
    }
    state.SetItemsProcessed(tasks * state.iterations());
}
BENCHMARK(WorkerThreadPostAndDrain)
    ->Arg(1'000'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

// The queue as first described: append on put, stable sort of everything on every get.
class SortingTaskQueue {
  public:
    void put(std::unique_ptr<Task> task) {
        if (!task) {
            return;
        }
        {
            std::lock_guard lock(mutex);
            queue.push_back(std::move(task));
        }
        condition.notify_one();
    }

    std::unique_ptr<Task> get() {
        std::unique_lock lock(mutex);
        condition.wait(lock, [this] { return !queue.empty() || stopped; });
        if (queue.empty()) {
            return nullptr;
        }
        std::stable_sort(queue.begin(), queue.end(),
                         [](const auto& a, const auto& b) { return a->priority < b->priority; });
        std::unique_ptr<Task> task = std::move(queue.front());
        queue.pop_front();
        return task;
    }

    void stop() {
        {
            std::lock_guard lock(mutex);
            stopped = true;
        }
        condition.notify_all();
    }

  private:
    std::mutex mutex;
    std::condition_variable condition;
    std::deque<std::unique_ptr<Task>> queue;
    bool stopped = false;
};

class CountingTask final : public Task {
  public:
    CountingTask(TaskPriority priority_, std::uint64_t* counter_)
        : Task(priority_), counter(counter_) {}
    void operator()() override { ++*counter; }

  private:
    std::uint64_t* counter;
};

template <typename Queue>
void QueueWithConsumer(benchmark::State& state) {
    const std::int64_t tasks = state.range(0);
    for (auto _ : state) {
        Queue queue;
        std::uint64_t ran = 0;
        std::thread consumer([&] {
            while (auto task = queue.get()) {
                (*task)();
            }
        });
        for (std::int64_t i = 0; i < tasks; ++i) {
            queue.put(std::make_unique<CountingTask>(priorityOf(i), &ran));
        }
        queue.stop();
        consumer.join();
        benchmark::DoNotOptimize(ran);
    }
    state.SetItemsProcessed(tasks * state.iterations());
}
BENCHMARK(QueueWithConsumer<TaskQueue>)->Arg(20'000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(QueueWithConsumer<SortingTaskQueue>)
    ->Arg(20'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

template <typename Queue>
void QueuePrefilled(benchmark::State& state) {
    const std::int64_t tasks = state.range(0);
    for (auto _ : state) {
        Queue queue;
        std::uint64_t ran = 0;
        for (std::int64_t i = 0; i < tasks; ++i) {
            queue.put(std::make_unique<CountingTask>(priorityOf(i), &ran));
        }
        queue.stop();
        while (auto task = queue.get()) {
            (*task)();
        }
        benchmark::DoNotOptimize(ran);
    }
    state.SetItemsProcessed(tasks * state.iterations());
}
BENCHMARK(QueuePrefilled<TaskQueue>)->Arg(20'000)->Unit(benchmark::kMillisecond);
BENCHMARK(QueuePrefilled<SortingTaskQueue>)->Arg(20'000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (bestTasksPerSecond > 0) {
        const double millions = bestTasksPerSecond / 1e6;
        terrane::bench::recordResult({.work = "task queue, 1M mixed-priority tasks",
                                      .ours = terrane::bench::format("%.2f M/s", millions),
                                      .anchor = "-",
                                      .ratio = millions,
                                      .goal = ">= 2 M/s",
                                      .met = millions >= 2});
    }
    return 0;
}
