#pragma once

#include <utility>

namespace terrane::base {

// A type-erased owning slot: a pointer and the function that releases it. The platform binding
// keeps its (weak) reference to an object's current wrapper here, so core objects need not know
// the binding's types. Empty by default, with a deleter that does nothing.
//
// Not synchronised: the binding reads and replaces a slot from one thread at a time.
class TypeWrapper {
  public:
    using Deleter = void (*)(void*);

    TypeWrapper() noexcept = default;
    // Takes ownership of `pointer`; `deleter` releases it when the slot is reset or destroyed.
    TypeWrapper(void* pointer, Deleter deleter) noexcept
        : pointer_(pointer), deleter_(deleter ? deleter : &noDelete) {}

    TypeWrapper(TypeWrapper&& other) noexcept
        : pointer_(std::exchange(other.pointer_, nullptr)),
          deleter_(std::exchange(other.deleter_, &noDelete)) {}
    TypeWrapper& operator=(TypeWrapper&& other) noexcept {
        if (this != &other) {
            reset();
            pointer_ = std::exchange(other.pointer_, nullptr);
            deleter_ = std::exchange(other.deleter_, &noDelete);
        }
        return *this;
    }
    TypeWrapper(const TypeWrapper&) = delete;
    TypeWrapper& operator=(const TypeWrapper&) = delete;

    ~TypeWrapper() { reset(); }

    // Releases the current content, then takes the new one.
    void reset(void* pointer = nullptr, Deleter deleter = &noDelete) noexcept {
        void* old = std::exchange(pointer_, pointer);
        Deleter oldDeleter = std::exchange(deleter_, deleter ? deleter : &noDelete);
        if (old) {
            oldDeleter(old);
        }
    }

    void* get() const noexcept { return pointer_; }
    bool hasValue() const noexcept { return pointer_ != nullptr; }
    explicit operator bool() const noexcept { return hasValue(); }

  private:
    static void noDelete(void*) noexcept {}

    void* pointer_ = nullptr;
    Deleter deleter_ = &noDelete;
};

}  // namespace terrane::base
