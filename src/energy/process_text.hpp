#pragma once
// Turning the raw bytes a process table hands out into text the rest of the system can carry:
// names and arguments end up in the store, in JSON and on screen, all of which need UTF-8, but a
// process may name itself with any bytes at all.

#include <string>
#include <string_view>
#include <vector>

namespace quorel {

// `bytes` with every ill-formed sequence replaced by U+FFFD, one per maximal ill-formed part,
// the replacement most decoders make, so a name shows the same here as in other tools. Overlong
// forms, surrogates and code points above U+10FFFF count as ill-formed.
std::string repairUTF8(std::string_view bytes);

// A NUL-separated argument block (a final NUL is optional) as separate, repaired arguments.
// Empty arguments inside are kept; empty ones at the end are dropped, since a program that
// rewrites its own arguments leaves NUL padding there that was never an argument.
std::vector<std::string> splitArguments(std::string_view block);

// ASCII letters lowered, everything else kept: process names are compared without case, but
// their non-ASCII bytes must survive untouched.
std::string lowerASCII(std::string_view text);

// The part after the last '/', trailing slashes ignored; a name of slashes alone stays as it is.
std::string lastPathComponent(std::string_view path);

}  // namespace quorel
