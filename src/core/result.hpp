#pragma once
// A value or the reason there is none. For operations whose failure someone must hear about:
// an empty answer and a failed one must not look alike. Absence that is no failure stays
// std::optional.

#include <string>
#include <utility>
#include <variant>

namespace quorel {

// Why an operation failed, as a sentence fragment a person can read ("no such table: sessions").
struct Error {
  std::string message;

  bool operator==(const Error&) const = default;
};

template <class T>
class Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}      // NOLINT: implicit
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT: implicit

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  // REQUIRES: ok().
  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }

  // REQUIRES: !ok().
  const Error& error() const { return std::get<1>(state_); }

  // The value, or `fallback` when the operation failed.
  T valueOr(T fallback) const& { return ok() ? value() : std::move(fallback); }
  T valueOr(T fallback) && { return ok() ? std::move(*this).value() : std::move(fallback); }

  bool operator==(const Result&) const = default;

 private:
  std::variant<T, Error> state_;
};

}  // namespace quorel
