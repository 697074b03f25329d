#pragma once
// The one way an enumeration is tied to its texts (raw values, labels): a constant table of
// pairs, looked up in both directions.

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace quorel {

template <class E, std::size_t N>
struct EnumTextTable {
  std::array<std::pair<E, std::string_view>, N> entries;

  // `fallback` for a value the table does not list (a cast from a stored integer, say).
  constexpr std::string_view text(E value, std::string_view fallback = {}) const {
    for (const auto& [v, t] : entries) {
      if (v == value) return t;
    }
    return fallback;
  }

  constexpr std::optional<E> parse(std::string_view text) const {
    for (const auto& [v, t] : entries) {
      if (t == text) return v;
    }
    return std::nullopt;
  }
};

template <class E, std::size_t N>
EnumTextTable(std::array<std::pair<E, std::string_view>, N>) -> EnumTextTable<E, N>;

}  // namespace quorel
