#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>
#include <variant>

#include "terrane/util/recursive_wrapper.hpp"

namespace terrane::util {

namespace detail {

template <typename T, typename... Ts>
inline constexpr bool is_one_of = (std::is_same_v<T, Ts> || ...);

template <typename... Fs>
struct overloaded : Fs... {
    using Fs::operator()...;
};

template <typename T>
decltype(auto) unwrap(T&& alternative) {
    return std::forward<T>(alternative);
}
template <typename T>
T& unwrap(recursive_wrapper<T>& wrapper) {
    return wrapper.get();
}
template <typename T>
const T& unwrap(const recursive_wrapper<T>& wrapper) {
    return wrapper.get();
}

}  // namespace detail

// A std::variant with the conveniences the value and geometry types rely on: is<T>(), get<T>()
// and match(), all of which look through recursive_wrapper.
template <typename... Ts>
class variant : public std::variant<Ts...> {
  public:
    using base_type = std::variant<Ts...>;
    using base_type::base_type;
    using base_type::operator=;

    variant() = default;

    template <typename T>
    bool is() const noexcept {
        if constexpr (detail::is_one_of<T, Ts...>) {
            return std::holds_alternative<T>(base());
        } else {
            static_assert(detail::is_one_of<recursive_wrapper<T>, Ts...>,
                          "T is not an alternative of this variant");
            return std::holds_alternative<recursive_wrapper<T>>(base());
        }
    }

    template <typename T>
    T& get() {
        if constexpr (detail::is_one_of<T, Ts...>) {
            return std::get<T>(base());
        } else {
            return std::get<recursive_wrapper<T>>(base()).get();
        }
    }

    template <typename T>
    const T& get() const {
        if constexpr (detail::is_one_of<T, Ts...>) {
            return std::get<T>(base());
        } else {
            return std::get<recursive_wrapper<T>>(base()).get();
        }
    }

    // Returns nullptr when the variant holds another alternative.
    template <typename T>
    T* get_if() noexcept {
        return is<T>() ? &get<T>() : nullptr;
    }
    template <typename T>
    const T* get_if() const noexcept {
        return is<T>() ? &get<T>() : nullptr;
    }

    std::size_t which() const noexcept { return base().index(); }

    template <typename F>
    decltype(auto) visit(F&& f) const {
        return std::visit([&](const auto& a) -> decltype(auto) { return f(detail::unwrap(a)); },
                          base());
    }
    template <typename F>
    decltype(auto) visit(F&& f) {
        return std::visit([&](auto& a) -> decltype(auto) { return f(detail::unwrap(a)); }, base());
    }

    template <typename... Fs>
    decltype(auto) match(Fs&&... fs) const {
        return visit(detail::overloaded<std::decay_t<Fs>...>{std::forward<Fs>(fs)...});
    }
    template <typename... Fs>
    decltype(auto) match(Fs&&... fs) {
        return visit(detail::overloaded<std::decay_t<Fs>...>{std::forward<Fs>(fs)...});
    }

    base_type& base() noexcept { return *this; }
    const base_type& base() const noexcept { return *this; }

    friend bool operator==(const variant& a, const variant& b) { return a.base() == b.base(); }
};

}  // namespace terrane::util
