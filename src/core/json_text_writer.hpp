#pragma once
// JSON text written as it goes, for answers too large to build as a JSONValue first. Numbers and
// strings come out exactly as JSONValue::write gives them (both use the functions below), so a
// streamed answer and the same answer built as a value and written are the same bytes.
//
// Members are written in the order the caller gives them; a JSONValue object writes its keys in
// bytewise order, so a caller that wants the same text gives its keys in that order.
// Not thread-safe.

#include <array>
#include <cstddef>
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
// A finite number: whole numbers without a fraction, others in a form that reads back as the
// same double (the shortest such digits from 1e-4 up to 1e15, where nearly all of ours lie).
// False, with nothing written, for a number that is not finite.
bool appendNumber(std::string& out, double d);
// formatIso8601(t) between quotes, without the detour through a string.
void appendTime(std::string& out, TimePoint t);

}  // namespace json_text

// A member name of the code's own, checked when compiled to need no escaping and held already
// framed ("name": in each of the writer's forms) in blocks of fixed size, so that writing one
// is a copy the compiler can make without a call.
class JSONKey {
 public:
  static constexpr std::size_t kMaxLength = 40;
  // The framed name and the zeros after it: two quotes of up to two bytes each and a colon.
  static constexpr std::size_t kBlock = kMaxLength + 8;

  template <std::size_t N>
  consteval JSONKey(const char (&name)[N])  // NOLINT: a literal converts
      : length_(N - 1) {
    static_assert(N - 1 <= kMaxLength, "a member name this long is not one of ours");
    for (std::size_t i = 0; i + 1 < N; ++i) {
      const auto byte = static_cast<unsigned char>(name[i]);
      if (byte < 0x20 || byte >= 0x80 || name[i] == '"' || name[i] == '\\') {
        throw "a member name must be printable ASCII without quotes or backslashes";
      }
    }
    frame(0, name, "\"");
    frame(1, name, "\\\"");
  }
  std::string_view name() const noexcept { return {framed_[0].data() + 1, length_}; }
  // The whole block of the framed name in the writer's json (0) or inString (1) form.
  const char* block(std::size_t form) const noexcept { return framed_[form].data(); }
  std::size_t framedLength(std::size_t form) const noexcept { return length_ + 3 + 2 * form; }

 private:
  template <std::size_t N, std::size_t Q>
  consteval void frame(std::size_t form, const char (&name)[N], const char (&quote)[Q]) {
    std::size_t at = 0;
    for (std::size_t i = 0; i + 1 < Q; ++i) framed_[form][at++] = quote[i];
    for (std::size_t i = 0; i + 1 < N; ++i) framed_[form][at++] = name[i];
    for (std::size_t i = 0; i + 1 < Q; ++i) framed_[form][at++] = quote[i];
    framed_[form][at] = ':';
  }

  std::array<std::array<char, kBlock>, 2> framed_{};
  std::size_t length_;
};

namespace json_key_detail {

template <std::size_t N>
struct Literal {
  consteval Literal(const char (&name)[N]) {  // NOLINT: a literal converts
    for (std::size_t i = 0; i < N; ++i) text[i] = name[i];
  }
  char text[N];
};

// One constant per name, in read-only data: a key built at the call instead would be stored to
// the stack on every call, and read back at once in wider loads than it was stored with.
template <Literal L>
inline constexpr JSONKey kKey{L.text};

}  // namespace json_key_detail

inline namespace json_literals {

// "name"_key: the member name, checked and framed when compiled.
template <json_key_detail::Literal L>
constexpr const JSONKey& operator""_key() {
  return json_key_detail::kKey<L>;
}

}  // namespace json_literals

class JSONTextWriter {
 public:
  enum class Form {
    json,
    // The text as it stands inside a JSON string: what writing the json form as a string puts
    // between its quotes. An answer that travels as the text of another is written this way
    // once, rather than written and then escaped as a whole.
    inString,
  };

  // `expectedBytes` sizes the text at the start, so that a writer that knows roughly how much
  // it will write does not grow it step by step.
  explicit JSONTextWriter(Form form = Form::json, std::size_t expectedBytes = 0);

  JSONTextWriter& beginObject();
  JSONTextWriter& endObject();
  JSONTextWriter& beginArray();
  JSONTextWriter& endArray();
  // The next member's key; its value follows.
  JSONTextWriter& key(const JSONKey& k);

  JSONTextWriter& null();
  JSONTextWriter& boolean(bool b);
  JSONTextWriter& string(std::string_view s);
  // Null when absent, as JSONValue holds an absent text.
  JSONTextWriter& nullableString(const std::optional<std::string>& s);
  // Null for a number that is absent or not finite, which JSONValue cannot write.
  JSONTextWriter& number(double d);
  JSONTextWriter& number(std::optional<double> d);
  JSONTextWriter& time(TimePoint t);

  // Text this writer wrote earlier, in the same form, written again as the next value.
  JSONTextWriter& raw(std::string_view text);

  Form form() const noexcept { return form_; }
  // How much is written so far, and what was written since such a mark; the view lasts until
  // the next write.
  std::size_t size() const noexcept { return used_; }
  std::string_view writtenSince(std::size_t mark) const noexcept {
    return std::string_view(text_).substr(mark, used_ - mark);
  }

  // What was written; the writer is spent.
  std::string take() &&;

 private:
  // The most a member adds around its text: a separator, two quotes of two bytes and a colon.
  static constexpr std::size_t kFrameBytes = 8;

  // Makes room for `bytes` past the cursor and writes the separator a value needs; the cursor.
  // Inline, as every member passes through these three.
  char* room(std::size_t bytes) {
    bytes += kFrameBytes;
    if (text_.size() - used_ < bytes) grow(bytes);
    char* p = text_.data() + used_;
    if (afterValue_) *p++ = ',';
    return p;
  }
  char* quote(char* p) const {
    if (form_ == Form::inString) *p++ = '\\';
    *p++ = '"';
    return p;
  }
  void advanceTo(const char* p) { used_ = static_cast<std::size_t>(p - text_.data()); }
  void grow(std::size_t bytes);
  // A string that needs escaping, or is long, between quotes in this writer's form.
  void quotedEscaped(std::string_view s);

  // Sized ahead of the cursor: bytes past `used_` are room, not text.
  std::string text_;
  std::size_t used_ = 0;
  Form form_;
  // Whether a value was the last thing written, so that the next one needs a comma first.
  bool afterValue_ = false;
};

}  // namespace quorel
