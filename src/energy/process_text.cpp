#include "energy/process_text.hpp"

#include <cstddef>

namespace quorel {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// The length of the well-formed sequence that starts at `i`, or 0 with `consumed` set to the
// length of its maximal ill-formed prefix (at least 1), which then becomes one U+FFFD.
std::size_t sequenceLength(std::string_view s, std::size_t i, std::size_t& consumed) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned lead = byte(i);
  std::size_t length = 0;
  unsigned low = 0x80, high = 0xBF;  // the allowed range of the first continuation byte
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // shorter forms are overlong
    if (lead == 0xED) high = 0x9F;  // the surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    consumed = 1;
    return 0;
  }
  for (std::size_t k = 1; k < length; ++k) {
    const unsigned lo = k == 1 ? low : 0x80;
    const unsigned hi = k == 1 ? high : 0xBF;
    if (i + k >= s.size() || byte(i + k) < lo || byte(i + k) > hi) {
      consumed = k;
      return 0;
    }
  }
  return length;
}

}  // namespace

std::string repairUTF8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  std::size_t i = 0;
  while (i < bytes.size()) {
    std::size_t consumed = 0;
    const std::size_t length = sequenceLength(bytes, i, consumed);
    if (length > 0) {
      out.append(bytes.substr(i, length));
      i += length;
    } else {
      out.append(kReplacement);
      i += consumed;
    }
  }
  return out;
}

std::vector<std::string> splitArguments(std::string_view block) {
  while (!block.empty() && block.back() == '\0') block.remove_suffix(1);
  std::vector<std::string> arguments;
  if (block.empty()) return arguments;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = block.find('\0', start);
    arguments.push_back(repairUTF8(block.substr(start, end - start)));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return arguments;
}

std::string lowerASCII(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string lastPathComponent(std::string_view path) {
  const auto end = path.find_last_not_of('/');
  if (end == std::string_view::npos) return std::string(path);
  const std::string_view trimmed = path.substr(0, end + 1);
  const auto slash = trimmed.rfind('/');
  return std::string(slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1));
}

}  // namespace quorel
