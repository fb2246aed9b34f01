#pragma once

#include <memory>
#include <utility>

namespace terrane::util {

// Holds a T on the heap so that a variant can contain itself (a value holding an array of
// values). Copies are deep; moves hand over the pointer. A moved-from wrapper may only be
// destroyed or assigned to.
template <typename T>
class recursive_wrapper {
  public:
    recursive_wrapper() : p_(std::make_unique<T>()) {}
    recursive_wrapper(const T& operand) : p_(std::make_unique<T>(operand)) {}
    recursive_wrapper(T&& operand) : p_(std::make_unique<T>(std::move(operand))) {}

    recursive_wrapper(const recursive_wrapper& other) : p_(std::make_unique<T>(other.get())) {}
    recursive_wrapper(recursive_wrapper&& other) noexcept = default;

    recursive_wrapper& operator=(const recursive_wrapper& other) {
        if (this != &other) {
            p_ = std::make_unique<T>(other.get());
        }
        return *this;
    }
    recursive_wrapper& operator=(recursive_wrapper&& other) noexcept = default;

    recursive_wrapper& operator=(const T& operand) {
        p_ = std::make_unique<T>(operand);
        return *this;
    }
    recursive_wrapper& operator=(T&& operand) {
        p_ = std::make_unique<T>(std::move(operand));
        return *this;
    }

    T& get() { return *p_; }
    const T& get() const { return *p_; }
    T* get_pointer() { return p_.get(); }
    const T* get_pointer() const { return p_.get(); }

    operator T&() { return *p_; }
    operator const T&() const { return *p_; }

    friend bool operator==(const recursive_wrapper& a, const recursive_wrapper& b) {
        return a.get() == b.get();
    }

  private:
    std::unique_ptr<T> p_;
};

}  // namespace terrane::util
