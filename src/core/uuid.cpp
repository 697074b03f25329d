#include "core/uuid.hpp"

#include <random>

namespace quorel {

std::string makeUuid() {
  thread_local std::mt19937_64 random{std::random_device{}()};
  std::uniform_int_distribution<unsigned> nibble(0, 15);
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out(36, '-');
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) continue;
    out[i] = kHex[nibble(random)];
  }
  out[14] = '4';                               // version 4: random
  out[19] = kHex[8 + (nibble(random) & 0x3)];  // the RFC 4122 variant
  return out;
}

std::optional<std::string> normalizeUuid(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string out(text);
  for (std::size_t i = 0; i < out.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (out[i] == '-')) return std::nullopt;
    if (dash) continue;
    const char c = out[i];
    if (c >= 'a' && c <= 'f') {
      out[i] = static_cast<char>(c - 'a' + 'A');
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return std::nullopt;
    }
  }
  return out;
}

}  // namespace quorel
