#pragma once
// Small text helpers shared by the transport, the server and the command line.

#include <cstddef>
#include <string>
#include <string_view>

namespace quorel {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);
std::string asciiLower(std::string_view text);
std::string asciiUpper(std::string_view text);
// ASCII case-insensitive equality, without building lowered copies. Inline: the request parser
// calls it for every header line.
inline bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    const char y = b[i] >= 'A' && b[i] <= 'Z' ? static_cast<char>(b[i] - 'A' + 'a') : b[i];
    if (x != y) return false;
  }
  return true;
}
// Trims spaces and tabs only, as header fields are trimmed.
std::string_view trimBlanks(std::string_view text);
// Trims spaces, tabs and line ends.
std::string_view trimWhitespace(std::string_view text);

}  // namespace quorel
