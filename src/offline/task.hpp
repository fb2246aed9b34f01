#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

namespace terrane::common {

// A smaller value runs earlier; tasks of equal priority run in posting order.
enum class TaskPriority : std::uint8_t {
    // Every public operation, observer registration, HTTP completion and follow-up step.
    Normal = 128,
    // Only the idle check: it must wait until no ordinary work is queued.
    Idle = 255,
};

// One queued call. Owned by the queue until taken, then by the thread that runs it, which
// destroys it right after running it.
class Task {
  public:
    explicit Task(TaskPriority priority_) noexcept : priority(priority_) {}
    virtual ~Task() = default;

    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    // Runs the call; once only.
    virtual void operator()() = 0;

    const TaskPriority priority;
};

namespace detail {

template <typename Fn, typename Object, typename Tuple>
struct InvocableWithMovedTuple : std::false_type {};

template <typename Fn, typename Object, typename... Ts>
struct InvocableWithMovedTuple<Fn, Object, std::tuple<Ts...>>
    : std::bool_constant<std::is_invocable_v<Fn, Object&, Ts&&...>> {};

}  // namespace detail

// A member-function call bound to an object, with its arguments stored by value. The arguments
// are moved into the call, so a task must run at most once.
template <typename Object, typename Fn, typename ArgsTuple>
class TaskImpl final : public Task {
    static_assert(std::is_member_function_pointer_v<Fn>, "tasks call member functions");
    static_assert(detail::InvocableWithMovedTuple<Fn, Object, ArgsTuple>::value,
                  "the member function cannot take these arguments");

  public:
    TaskImpl(TaskPriority priority_, Object* object_, Fn fn_, ArgsTuple args_)
        : Task(priority_), object(object_), fn(fn_), args(std::move(args_)) {}

    void operator()() override {
        // The object may have been constructed in its storage after this task was made (the
        // worker posts to itself from its constructor, the facade may post before it exists);
        // launder the address now that an object certainly lives there.
        Object& target = *std::launder(object);
        std::apply([&](auto&... arguments) { std::invoke(fn, target, std::move(arguments)...); },
                   args);
    }

  private:
    Object* object;
    Fn fn;
    ArgsTuple args;
};

// Binds `fn` on `object` with decayed copies of `args` (rvalues are moved in).
template <typename Object, typename Fn, typename... Args>
std::unique_ptr<Task> makeTask(TaskPriority priority, Object* object, Fn fn, Args&&... args) {
    using ArgsTuple = std::tuple<std::decay_t<Args>...>;
    return std::make_unique<TaskImpl<Object, Fn, ArgsTuple>>(
        priority, object, fn, ArgsTuple(std::forward<Args>(args)...));
}

}  // namespace terrane::common
