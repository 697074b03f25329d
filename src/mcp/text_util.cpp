#include "mcp/text_util.hpp"

#include <cstdint>
#include <cstring>

namespace quorel {

bool isValidUTF8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    // Heads are nearly always plain ASCII: skip it a word at a time.
    if (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, sizeof word);
      if ((word & 0x8080808080808080ull) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int extra = 0;
    unsigned lowest = 0;
    unsigned cp = 0;
    if ((c & 0xE0) == 0xC0) {
      extra = 1, cp = c & 0x1F, lowest = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2, cp = c & 0x0F, lowest = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3, cp = c & 0x07, lowest = 0x10000;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < lowest || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += extra + 1;
  }
  return true;
}

std::string asciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string asciiUpper(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

namespace {
std::string_view trimOf(std::string_view text, std::string_view set) {
  const auto first = text.find_first_not_of(set);
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(set);
  return text.substr(first, last - first + 1);
}
}  // namespace

std::string_view trimWhitespace(std::string_view text) {
  return trimOf(text, " \t\r\n\v\f");
}

}  // namespace quorel
