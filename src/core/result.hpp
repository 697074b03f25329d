#pragma once
// A value or the reason there is none. For operations whose failure someone must hear about:
// an empty answer and a failed one must not look alike. Absence that is no failure stays
// std::optional.

#include <optional>
#include <string>
#include <utility>

namespace quorel {

// Why an operation failed, as a sentence fragment a person can read ("no such table: sessions").
struct Error {
  std::string message;

  bool operator==(const Error&) const = default;
};

template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}      // NOLINT: implicit
  Result(Error error) : error_(std::move(error)) {}  // NOLINT: implicit

  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }

  // REQUIRES: ok().
  T& value() & { return *value_; }
  const T& value() const& { return *value_; }
  T&& value() && { return *std::move(value_); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }

  // REQUIRES: !ok().
  const Error& error() const { return error_; }

  // The value, or `fallback` when the operation failed.
  T valueOr(T fallback) const& { return ok() ? value() : std::move(fallback); }
  T valueOr(T fallback) && { return ok() ? std::move(*this).value() : std::move(fallback); }

  bool operator==(const Result&) const = default;

 private:
  // Not a std::variant: GCC 12 at -O2 mistakes moving one through a packaged task (the store's
  // reads cross its queue that way) for freeing an object that was never allocated.
  std::optional<T> value_;
  Error error_;
};

}  // namespace quorel
