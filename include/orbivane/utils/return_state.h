// A value of type T or an error of type E. Operations that talk to a device or
// read user files return one of these instead of throwing; the library always
// uses E = std::string, an English message that can be shown as it is.
#pragma once

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace Utils {

// Wraps an error so that ReturnState<T, E> can tell it from a value even when T
// and E are the same type.
template <typename E>
struct Failure {
  E error;
};

template <typename E>
Failure<std::decay_t<E>> failure(E&& error) {
  return Failure<std::decay_t<E>>{std::forward<E>(error)};
}

inline Failure<std::string> failure(const char* error) { return Failure<std::string>{std::string(error)}; }

template <typename T, typename E = std::string>
class ReturnState {
 public:
  ReturnState(const T& value) : state_(std::in_place_index<0>, value) {}
  ReturnState(T&& value) : state_(std::in_place_index<0>, std::move(value)) {}
  // `return "cannot connect";` from a function returning ReturnState<bool,
  // std::string> would read as success = true (a pointer converts to bool):
  // a text is never a value of an arithmetic or pointer T. Errors go through
  // Utils::failure(...) or fromError(...).
  template <typename U = T, typename = std::enable_if_t<std::is_arithmetic_v<U> || std::is_pointer_v<U>>>
  ReturnState(const char*) = delete;
  template <typename F, typename = std::enable_if_t<std::is_constructible_v<E, F>>>
  ReturnState(Failure<F> error) : state_(std::in_place_index<1>, E(std::move(error.error))) {}

  static ReturnState success(T value) { return ReturnState(std::move(value)); }
  static ReturnState fromError(E error) { return ReturnState(Failure<E>{std::move(error)}); }

  bool hasValue() const { return state_.index() == 0; }
  bool hasError() const { return state_.index() == 1; }
  explicit operator bool() const { return hasValue(); }

  // Throws std::logic_error when the state holds an error: reading a value that
  // is not there is a programming mistake of the caller.
  const T& value() const& {
    if (!hasValue()) throw std::logic_error("ReturnState holds an error: " + describe());
    return std::get<0>(state_);
  }
  T& value() & {
    if (!hasValue()) throw std::logic_error("ReturnState holds an error: " + describe());
    return std::get<0>(state_);
  }
  T&& value() && {
    if (!hasValue()) throw std::logic_error("ReturnState holds an error: " + describe());
    return std::get<0>(std::move(state_));
  }
  const E& error() const {
    if (!hasError()) throw std::logic_error("ReturnState holds a value, not an error");
    return std::get<1>(state_);
  }

 private:
  std::string describe() const {
    if constexpr (std::is_convertible_v<E, std::string>) {
      return std::string(std::get<1>(state_));
    } else {
      return "(error)";
    }
  }

  std::variant<T, E> state_;
};

}  // namespace Utils
