#include "core/json_text_writer.hpp"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

namespace quorel {

namespace json_text {

namespace {

constexpr char kHex[] = "0123456789abcdef";
// Room for the longest number and time either writer gives.
constexpr std::size_t kNumberBytes = 64;
constexpr std::size_t kTimeBytes = 32;

// How many bytes nlohmann writes for each ASCII byte between quotes: 1 for the bytes it copies
// (0x7F included), 2 for the short escapes, 6 for the other control bytes. 0 marks the bytes
// above 0x7F, whose text goes to nlohmann itself to have its UTF-8 checked and mended.
constexpr std::array<std::uint8_t, 256> kEscapedLength = [] {
  std::array<std::uint8_t, 256> lengths{};
  for (int c = 0; c < 0x80; ++c) lengths[static_cast<std::size_t>(c)] = c < 0x20 ? 6 : 1;
  for (const char c : {'"', '\\', '\b', '\f', '\n', '\r', '\t'}) {
    lengths[static_cast<unsigned char>(c)] = 2;
  }
  return lengths;
}();

// The two bytes of a short escape ('\\' and the letter); a byte copied as it is has itself
// first, and the second is overwritten by whatever follows.
constexpr std::array<std::array<char, 256>, 2> kEscapeBytes = [] {
  std::array<std::array<char, 256>, 2> bytes{};
  for (int c = 0; c < 256; ++c) {
    bytes[0][static_cast<std::size_t>(c)] = static_cast<char>(c);
    bytes[1][static_cast<std::size_t>(c)] = static_cast<char>(c);
  }
  for (const auto& [c, letter] :
       {std::pair{'"', '"'}, std::pair{'\\', '\\'}, std::pair{'\b', 'b'}, std::pair{'\f', 'f'},
        std::pair{'\n', 'n'}, std::pair{'\r', 'r'}, std::pair{'\t', 't'}}) {
    bytes[0][static_cast<unsigned char>(c)] = '\\';
    bytes[1][static_cast<unsigned char>(c)] = letter;
  }
  return bytes;
}();

// Measures first and writes into place after, since text full of quotes (an answer carried
// inside another answer) would otherwise be appended a few bytes at a time.
bool appendAsciiEscaped(std::string& out, std::string_view s) {
  std::size_t length = 0;
  std::uint8_t ascii = 1;
  for (const char c : s) {
    const std::uint8_t n = kEscapedLength[static_cast<unsigned char>(c)];
    ascii &= static_cast<std::uint8_t>(n != 0);
    length += n;
  }
  if (ascii == 0) return false;
  if (length == s.size()) {
    out.append(s);
    return true;
  }
  const std::size_t mark = out.size();
  // One spare byte: every byte writes two and moves on by its own length.
  out.resize(mark + length + 1);
  char* p = out.data() + mark;
  for (const char ch : s) {
    const auto c = static_cast<unsigned char>(ch);
    const std::uint8_t n = kEscapedLength[c];
    if (n == 6) {
      p = std::copy_n("\\u00", 4, p);
      *p++ = kHex[c >> 4];
      *p++ = kHex[c & 0xF];
      continue;
    }
    p[0] = kEscapeBytes[0][c];
    p[1] = kEscapeBytes[1][c];
    p += n;
  }
  out.resize(mark + length);
  return true;
}

template <class Integer>
char* writeInteger(char* p, Integer n) {
  return std::to_chars(p, p + kNumberBytes, n).ptr;
}

char* writeDigits(char* p, unsigned value, int width) {
  for (int i = width - 1; i >= 0; --i) {
    p[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  return p + width;
}

}  // namespace

void appendEscaped(std::string& out, std::string_view s) {
  if (appendAsciiEscaped(out, s)) return;
  using nlohmann::json;
  const std::string quoted =
      json(std::string(s)).dump(-1, ' ', false, json::error_handler_t::replace);
  out.append(quoted, 1, quoted.size() - 2);
}

void appendString(std::string& out, std::string_view s) {
  out.push_back('"');
  appendEscaped(out, s);
  out.push_back('"');
}

namespace {

// The shortest digits of a number that is not whole, 1e-4 <= |d| < 1e15, as a plain decimal:
// fmt's digits (the shortest that read back as `d`), laid out here rather than by fmt's general
// formatter, which spends more on the layout than on finding them.
char* writePlainDecimal(char* p, double d, double magnitude) {
  const auto decimal = fmt::detail::dragonbox::to_decimal(magnitude);
  char* const start = p;
  if (d < 0) *p++ = '-';
  // The digits are written one place to the right of where the number starts: the whole digits
  // then step back to make room for the point, or for a number below one all of them move right
  // behind "0." and the zeros the exponent asks for.
  char* digits = p + 1;
  char* end = std::to_chars(digits, digits + 24, decimal.significand).ptr;
  const auto count = static_cast<int>(end - digits);
  // Digits before the point; never all of them, as a number that is not whole has a fraction.
  const int whole = count + decimal.exponent;
  if (whole >= count) return fmt::format_to(start, FMT_COMPILE("{}"), d);
  if (whole > 0) {
    for (int i = 0; i < whole; ++i) p[i] = digits[i];
    p[whole] = '.';
    return end;
  }
  // Below one: "0." and as many zeros as the exponent leaves, then the digits.
  const int zeros = -whole;
  // Backwards, as the digits move right over themselves.
  for (int i = count - 1; i >= 0; --i) p[2 + zeros + i] = digits[i];
  p[0] = '0';
  p[1] = '.';
  std::fill_n(p + 2, zeros, '0');
  return p + 2 + zeros + count;
}

// Writes at most kNumberBytes; null, with nothing written, for a number that is not finite.
char* writeNumber(char* p, double d) {
  if (!std::isfinite(d)) return nullptr;
  // 2^63 and 2^64 are exact in a double, so these bounds convert without rounding.
  if (std::trunc(d) == d) {
    if (d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
      return writeInteger(p, static_cast<std::int64_t>(d));
    }
    if (d >= 0 && d < 18446744073709551616.0) {
      return writeInteger(p, static_cast<std::uint64_t>(d));
    }
  }
  // The shortest digits that read back as `d`, laid out as nlohmann lays them out. Between these
  // bounds that layout is a plain decimal, and fmt finds the digits in two thirds of nlohmann's
  // time (a history answer is mostly such numbers); nlohmann's own digits are not always the
  // shortest, so now and then the two differ in a last digit, both reading back as `d`. Outside
  // them nlohmann's layout has an exponent, and its own writing is kept.
  const double magnitude = std::fabs(d);
  if (magnitude >= 1e-4 && magnitude < 1e15) return writePlainDecimal(p, d, magnitude);
  return nlohmann::detail::to_chars(p, p + kNumberBytes, d);
}

}  // namespace

bool appendNumber(std::string& out, double d) {
  std::array<char, kNumberBytes> buffer{};
  char* end = writeNumber(buffer.data(), d);
  if (end == nullptr) return false;
  out.append(buffer.data(), end);
  return true;
}

namespace {

// Writes at most kTimeBytes.
char* writeTimeText(char* p, TimePoint t) {
  // Calendar arithmetic rather than gmtime_r, which takes the C library's time zone lock.
  using namespace std::chrono;
  const auto ms = floor<milliseconds>(t);
  const auto day = floor<days>(ms);
  const year_month_day date{day};
  const hh_mm_ss clock{ms - day};
  const int y = static_cast<int>(date.year());
  if (y < 0 || y > 9999) {
    const std::string text = formatIso8601(t);
    return std::copy_n(text.data(), std::min(text.size(), kTimeBytes), p);
  }
  p = writeDigits(p, static_cast<unsigned>(y), 4);
  *p++ = '-';
  p = writeDigits(p, static_cast<unsigned>(date.month()), 2);
  *p++ = '-';
  p = writeDigits(p, static_cast<unsigned>(date.day()), 2);
  *p++ = 'T';
  p = writeDigits(p, static_cast<unsigned>(clock.hours().count()), 2);
  *p++ = ':';
  p = writeDigits(p, static_cast<unsigned>(clock.minutes().count()), 2);
  *p++ = ':';
  p = writeDigits(p, static_cast<unsigned>(clock.seconds().count()), 2);
  *p++ = '.';
  p = writeDigits(p, static_cast<unsigned>(clock.subseconds().count()), 3);
  *p++ = 'Z';
  return p;
}

}  // namespace

void appendTime(std::string& out, TimePoint t) {
  std::array<char, kTimeBytes + 2> buffer{};
  buffer[0] = '"';
  char* end = writeTimeText(buffer.data() + 1, t);
  *end++ = '"';
  out.append(buffer.data(), end);
}

namespace {

// Whether escaping would change the text: a byte to escape, or one that is not ASCII.
bool needsEscape(std::string_view s) {
  std::uint8_t plain = 1;
  for (const char c : s) {
    plain &= static_cast<std::uint8_t>(kEscapedLength[static_cast<unsigned char>(c)] == 1);
  }
  return plain == 0;
}

}  // namespace

}  // namespace json_text

namespace {

// Strings up to this long that need no escaping are copied straight in.
constexpr std::size_t kShortString = 64;

}  // namespace

JSONTextWriter::JSONTextWriter(Form form, std::size_t expectedBytes) : form_(form) {
  text_.resize(expectedBytes);
}

std::string JSONTextWriter::take() && {
  text_.resize(used_);
  used_ = 0;
  return std::move(text_);
}

void JSONTextWriter::grow(std::size_t bytes) {
  text_.resize(std::max(2 * text_.size(), used_ + bytes));
}

void JSONTextWriter::quotedEscaped(std::string_view s) {
  std::string escaped;
  if (form_ == Form::json) {
    json_text::appendEscaped(escaped, s);
  } else {
    std::string once;
    json_text::appendEscaped(once, s);
    json_text::appendEscaped(escaped, once);
  }
  char* p = quote(room(escaped.size()));
  p = std::copy(escaped.begin(), escaped.end(), p);
  advanceTo(quote(p));
}

JSONTextWriter& JSONTextWriter::beginObject() {
  char* p = room(1);
  *p++ = '{';
  advanceTo(p);
  afterValue_ = false;
  return *this;
}

JSONTextWriter& JSONTextWriter::endObject() {
  afterValue_ = false;
  char* p = room(1);
  *p++ = '}';
  advanceTo(p);
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::beginArray() {
  char* p = room(1);
  *p++ = '[';
  advanceTo(p);
  afterValue_ = false;
  return *this;
}

JSONTextWriter& JSONTextWriter::endArray() {
  afterValue_ = false;
  char* p = room(1);
  *p++ = ']';
  advanceTo(p);
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::key(const JSONKey& k) {
  const std::size_t form = form_ == Form::inString ? 1 : 0;
  char* p = room(JSONKey::kBlock);
  const std::size_t length = k.framedLength(form);
  // Most framed names fit the shorter copy; each is two wide moves the compiler makes inline.
  if (length <= JSONKey::kBlock / 2) {
    std::memcpy(p, k.block(form), JSONKey::kBlock / 2);
  } else {
    std::memcpy(p, k.block(form), JSONKey::kBlock);
  }
  advanceTo(p + length);
  afterValue_ = false;
  return *this;
}

JSONTextWriter& JSONTextWriter::null() {
  char* p = room(4);
  std::memcpy(p, "null", 4);
  advanceTo(p + 4);
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::boolean(bool b) {
  char* p = room(5);
  if (b) {
    std::memcpy(p, "true", 4);
    p += 4;
  } else {
    std::memcpy(p, "false", 5);
    p += 5;
  }
  advanceTo(p);
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::string(std::string_view s) {
  if (s.size() <= kShortString && !json_text::needsEscape(s)) {
    char* p = quote(room(s.size()));
    p = std::copy(s.begin(), s.end(), p);
    advanceTo(quote(p));
  } else {
    quotedEscaped(s);
  }
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::raw(std::string_view text) {
  char* p = room(text.size());
  advanceTo(std::copy(text.begin(), text.end(), p));
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::nullableString(const std::optional<std::string>& s) {
  return s ? string(std::string_view(*s)) : null();
}

JSONTextWriter& JSONTextWriter::number(double d) {
  char* p = room(json_text::kNumberBytes);
  char* end = json_text::writeNumber(p, d);
  if (end == nullptr) {
    std::memcpy(p, "null", 4);
    end = p + 4;
  }
  advanceTo(end);
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::number(std::optional<double> d) {
  return d ? number(*d) : null();
}

JSONTextWriter& JSONTextWriter::time(TimePoint t) {
  char* p = quote(room(json_text::kTimeBytes));
  p = json_text::writeTimeText(p, t);
  advanceTo(quote(p));
  afterValue_ = true;
  return *this;
}

}  // namespace quorel
