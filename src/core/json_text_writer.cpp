#include "core/json_text_writer.hpp"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

namespace quorel {

namespace json_text {

namespace {

constexpr char kHex[] = "0123456789abcdef";

// The escapes nlohmann writes for ASCII, where it copies every other byte (0x7F included).
// Text with bytes above 0x7F goes to nlohmann itself, which checks the UTF-8 and replaces what
// is not.
bool appendAsciiEscaped(std::string& out, std::string_view s) {
  const auto mark = out.size();
  out.reserve(out.size() + s.size() + s.size() / 8 + 2);
  out.push_back('"');
  std::size_t run = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) {
      out.resize(mark);
      return false;
    }
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(s.data() + run, i - run);
    run = i + 1;
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\b':
        out.append("\\b");
        break;
      case '\f':
        out.append("\\f");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        out.append("\\u00");
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xF]);
    }
  }
  out.append(s.data() + run, s.size() - run);
  out.push_back('"');
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
