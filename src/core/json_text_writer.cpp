#include "core/json_text_writer.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

namespace quorel {

namespace json_text {

namespace {

constexpr char kHex[] = "0123456789abcdef";

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
    out.push_back('"');
    out.append(s);
    out.push_back('"');
    return true;
  }
  const std::size_t mark = out.size();
  // One spare byte: every byte writes two and moves on by its own length.
  out.resize(mark + length + 3);
  char* p = out.data() + mark;
  *p++ = '"';
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
  *p = '"';
  out.resize(mark + length + 2);
  return true;
}

template <class Integer>
void appendInteger(std::string& out, Integer n) {
  std::array<char, 24> digits{};
  const auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), n);
  out.append(digits.data(), end);
}

void appendDigits(std::string& out, unsigned value, int width) {
  std::array<char, 4> digits{};
  for (int i = width - 1; i >= 0; --i) {
    digits[static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  out.append(digits.data(), static_cast<std::size_t>(width));
}

}  // namespace

void appendString(std::string& out, std::string_view s) {
  if (appendAsciiEscaped(out, s)) return;
  using nlohmann::json;
  out.append(json(std::string(s)).dump(-1, ' ', false, json::error_handler_t::replace));
}

bool appendNumber(std::string& out, double d) {
  if (!std::isfinite(d)) return false;
  // 2^63 and 2^64 are exact in a double, so these bounds convert without rounding.
  if (std::trunc(d) == d) {
    if (d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
      appendInteger(out, static_cast<std::int64_t>(d));
      return true;
    }
    if (d >= 0 && d < 18446744073709551616.0) {
      appendInteger(out, static_cast<std::uint64_t>(d));
      return true;
    }
  }
  // nlohmann's own shortest form, called without building a document and a serializer for it.
  std::array<char, 64> buffer{};
  char* end = nlohmann::detail::to_chars(buffer.data(), buffer.data() + buffer.size(), d);
  out.append(buffer.data(), end);
  return true;
}

void appendTime(std::string& out, TimePoint t) {
  // Calendar arithmetic rather than gmtime_r, which takes the C library's time zone lock.
  using namespace std::chrono;
  const auto ms = floor<milliseconds>(t);
  const auto day = floor<days>(ms);
  const year_month_day date{day};
  const hh_mm_ss clock{ms - day};
  out.push_back('"');
  const int y = static_cast<int>(date.year());
  if (y < 0 || y > 9999) {
    out.append(formatIso8601(t));
  } else {
    appendDigits(out, static_cast<unsigned>(y), 4);
    out.push_back('-');
    appendDigits(out, static_cast<unsigned>(date.month()), 2);
    out.push_back('-');
    appendDigits(out, static_cast<unsigned>(date.day()), 2);
    out.push_back('T');
    appendDigits(out, static_cast<unsigned>(clock.hours().count()), 2);
    out.push_back(':');
    appendDigits(out, static_cast<unsigned>(clock.minutes().count()), 2);
    out.push_back(':');
    appendDigits(out, static_cast<unsigned>(clock.seconds().count()), 2);
    out.push_back('.');
    appendDigits(out, static_cast<unsigned>(clock.subseconds().count()), 3);
    out.push_back('Z');
  }
  out.push_back('"');
}

}  // namespace json_text

void JSONTextWriter::separate() {
  if (afterValue_) out_.push_back(',');
}

JSONTextWriter& JSONTextWriter::beginObject() {
  separate();
  out_.push_back('{');
  afterValue_ = false;
  return *this;
}

JSONTextWriter& JSONTextWriter::endObject() {
  out_.push_back('}');
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::beginArray() {
  separate();
  out_.push_back('[');
  afterValue_ = false;
  return *this;
}

JSONTextWriter& JSONTextWriter::endArray() {
  out_.push_back(']');
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::key(std::string_view k) {
  separate();
  json_text::appendString(out_, k);
  out_.push_back(':');
  afterValue_ = false;
  return *this;
}

JSONTextWriter& JSONTextWriter::null() {
  separate();
  out_.append("null");
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::boolean(bool b) {
  separate();
  out_.append(b ? "true" : "false");
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::string(std::string_view s) {
  separate();
  json_text::appendString(out_, s);
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::nullableString(const std::optional<std::string>& s) {
  return s ? string(std::string_view(*s)) : null();
}

JSONTextWriter& JSONTextWriter::number(double d) {
  separate();
  if (!json_text::appendNumber(out_, d)) out_.append("null");
  afterValue_ = true;
  return *this;
}

JSONTextWriter& JSONTextWriter::number(std::optional<double> d) {
  return d ? number(*d) : null();
}

JSONTextWriter& JSONTextWriter::time(TimePoint t) {
  separate();
  json_text::appendTime(out_, t);
  afterValue_ = true;
  return *this;
}

}  // namespace quorel
