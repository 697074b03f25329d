#pragma once
// JSON text written as it goes, for answers too large to build as a JSONValue first. Numbers and
// strings come out exactly as JSONValue::write gives them (both use the functions below), so a
// streamed answer and the same answer built as a value and written are the same bytes.
//
// Members are written in the order the caller gives them; a JSONValue object writes its keys in
// bytewise order, so a caller that wants the same text gives its keys in that order.
// Not thread-safe; appends to a string the caller owns.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"

namespace quorel {

namespace json_text {

// A string between quotes, escaped; bytes that are not UTF-8 become U+FFFD.
void appendString(std::string& out, std::string_view s);
// What appendString writes between the quotes.
void appendEscaped(std::string& out, std::string_view s);
// A finite number: whole numbers without a fraction, others in their shortest round-trip form.
// False, with nothing written, for a number that is not finite.
bool appendNumber(std::string& out, double d);
// formatIso8601(t) between quotes, without the detour through a string.
void appendTime(std::string& out, TimePoint t);

}  // namespace json_text

class JSONTextWriter {
 public:
  enum class Form {
    json,
    // The text as it stands inside a JSON string: what writing the json form as a string puts
    // between its quotes. An answer that travels as the text of another is written this way
    // once, rather than written and then escaped as a whole.
    inString,
  };

  explicit JSONTextWriter(std::string& out, Form form = Form::json) noexcept
      : out_(out), form_(form) {}

  JSONTextWriter& beginObject();
  JSONTextWriter& endObject();
  JSONTextWriter& beginArray();
  JSONTextWriter& endArray();
  // The next member's key; its value follows.
  JSONTextWriter& key(std::string_view k);

  JSONTextWriter& null();
  JSONTextWriter& boolean(bool b);
  JSONTextWriter& string(std::string_view s);
  // Null when absent, as JSONValue holds an absent text.
  JSONTextWriter& nullableString(const std::optional<std::string>& s);
  // Null for a number that is absent or not finite, which JSONValue cannot write.
  JSONTextWriter& number(double d);
  JSONTextWriter& number(std::optional<double> d);
  JSONTextWriter& time(TimePoint t);

 private:
  class Piece;

  void separate();
  // A string that needs escaping, or is long, between quotes in this writer's form.
  void quotedEscaped(std::string_view s);

  std::string& out_;
  Form form_;
  // Whether a value was the last thing written, so that the next one needs a comma first.
  bool afterValue_ = false;
};

}  // namespace quorel
