#pragma once
// Small text helpers shared by the transport, the server and the command line.

#include <string>
#include <string_view>

namespace quorel {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(std::string_view text);
std::string asciiLower(std::string_view text);
std::string asciiUpper(std::string_view text);
// ASCII case-insensitive equality, without building lowered copies.
bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b);
// Trims spaces and tabs only, as header fields are trimmed.
std::string_view trimBlanks(std::string_view text);
// Trims spaces, tabs and line ends.
std::string_view trimWhitespace(std::string_view text);

}  // namespace quorel
