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
// ASCII case-insensitive equality, without building lowered copies. Inline and without branches
// in the loop: the request parser calls it for every header line, nearly always with a literal
// on one side, so that side folds away.
[[gnu::always_inline]] inline bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  const auto fold = [](char c) {
    const auto u = static_cast<unsigned>(static_cast<unsigned char>(c));
    return u + (static_cast<unsigned>(u - unsigned{'A'} < 26u) << 5);
  };
  unsigned difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) difference |= fold(a[i]) ^ fold(b[i]);
  return difference == 0;
}
// Trims spaces and tabs only, as header fields are trimmed. By hand and inline: every header
// line goes through here, and a two-character set search costs a call per character.
inline std::string_view trimBlanks(std::string_view text) {
  std::size_t begin = 0, end = text.size();
  while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
  while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t')) --end;
  return text.substr(begin, end - begin);
}
// Trims spaces, tabs and line ends.
std::string_view trimWhitespace(std::string_view text);

}  // namespace quorel
