#include "core/json_value.hpp"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>

namespace quorel {

JSONValue JSONValue::object(std::initializer_list<std::pair<std::string, JSONValue>> members) {
  Object o;
  for (const auto& [key, value] : members) o.insert_or_assign(key, value);
  return JSONValue(std::move(o));
}

JSONValue JSONValue::array(std::initializer_list<JSONValue> elements) {
  return JSONValue(Array(elements));
}

std::optional<double> JSONValue::numberValue() const noexcept {
  if (const double* d = std::get_if<double>(&payload_)) return *d;
  return std::nullopt;
}

std::optional<bool> JSONValue::boolValue() const noexcept {
  if (const bool* b = std::get_if<bool>(&payload_)) return *b;
  return std::nullopt;
}

const JSONValue* JSONValue::find(std::string_view key) const noexcept {
  const Object* o = objectValue();
  if (o == nullptr) return nullptr;
  auto it = o->find(key);
  return it == o->end() ? nullptr : &it->second;
}

std::optional<JSONValue> JSONValue::member(std::string_view key) const {
  if (const JSONValue* v = find(key)) return *v;
  return std::nullopt;
}

bool JSONValue::operator==(const JSONValue& other) const {
  return payload_ == other.payload_;
}

namespace {

using nlohmann::json;

// Builds a JSONValue straight from the parser's events, without an intermediate document, and
// refuses nesting past the limit before it can grow the stack of any later recursive walk.
class ValueBuilder {
 public:
  std::optional<JSONValue> root;
  std::string error;

  bool null() { return put(JSONValue(nullptr)); }
  bool boolean(bool b) { return put(JSONValue(b)); }
  bool number_integer(json::number_integer_t n) { return put(JSONValue(n)); }
  bool number_unsigned(json::number_unsigned_t n) { return put(JSONValue(n)); }
  bool number_float(json::number_float_t n, const json::string_t&) { return put(JSONValue(n)); }
  bool string(json::string_t& s) { return put(JSONValue(std::move(s))); }
  bool binary(json::binary_t&) {
    error = "Unsupported JSON value";
    return false;
  }
  bool start_object(std::size_t) { return open(true); }
  bool key(json::string_t& k) {
    frames_.back().key = std::move(k);
    return true;
  }
  bool end_object() {
    Frame f = std::move(frames_.back());
    frames_.pop_back();
    return put(JSONValue(std::move(f.object)));
  }
  bool start_array(std::size_t) { return open(false); }
  bool end_array() {
    Frame f = std::move(frames_.back());
    frames_.pop_back();
    return put(JSONValue(std::move(f.array)));
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) {
    error = e.what();
    return false;
  }

 private:
  struct Frame {
    bool isObject = false;
    JSONValue::Array array;
    JSONValue::Object object;
    std::string key;
  };
  std::vector<Frame> frames_;

  bool open(bool isObject) {
    if (frames_.size() >= static_cast<std::size_t>(JSONValue::kMaxReadDepth)) {
      error = "JSON nested deeper than " + std::to_string(JSONValue::kMaxReadDepth) + " levels";
      return false;
    }
    frames_.emplace_back();
    frames_.back().isObject = isObject;
    return true;
  }

  bool put(JSONValue v) {
    if (frames_.empty()) {
      root = std::move(v);
    } else if (Frame& top = frames_.back(); top.isObject) {
      top.object.insert_or_assign(std::move(top.key), std::move(v));
      top.key.clear();
    } else {
      top.array.push_back(std::move(v));
    }
    return true;
  }
};

// Whether nlohmann would write these bytes between quotes unchanged: printable ASCII with
// nothing to escape. Such text, nearly every key and most values, is copied without a detour.
bool writesVerbatim(std::string_view s) {
  for (const char c : s) {
    if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') return false;
  }
  return true;
}

void writeString(std::string_view s, std::string& out) {
  if (writesVerbatim(s)) {
    out.push_back('"');
    out.append(s);
    out.push_back('"');
    return;
  }
  out.append(json(std::string(s)).dump(-1, ' ', false, json::error_handler_t::replace));
}

template <class Integer>
void writeInteger(Integer n, std::string& out) {
  std::array<char, 24> digits{};
  const auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), n);
  out.append(digits.data(), end);
}

// The structure is written here; string escapes and fractional numbers are nlohmann's, so the
// text is what dumping the equivalent document would give, without building that document.
bool writeValue(const JSONValue& v, std::string& out) {
  switch (v.kind()) {
    case JSONValue::Kind::null:
      out.append("null");
      return true;
    case JSONValue::Kind::boolean:
      out.append(*v.boolValue() ? "true" : "false");
      return true;
    case JSONValue::Kind::string:
      writeString(*v.stringValue(), out);
      return true;
    case JSONValue::Kind::number: {
      const double d = *v.numberValue();
      if (!std::isfinite(d)) return false;
      // 2^63 and 2^64 are exact in a double, so these bounds convert without rounding.
      if (std::trunc(d) == d) {
        if (d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
          writeInteger(static_cast<std::int64_t>(d), out);
          return true;
        }
        if (d >= 0 && d < 18446744073709551616.0) {
          writeInteger(static_cast<std::uint64_t>(d), out);
          return true;
        }
      }
      out.append(json(d).dump());
      return true;
    }
    case JSONValue::Kind::array: {
      out.push_back('[');
      bool first = true;
      for (const auto& e : *v.arrayValue()) {
        if (!first) out.push_back(',');
        first = false;
        if (!writeValue(e, out)) return false;
      }
      out.push_back(']');
      return true;
    }
    case JSONValue::Kind::object: {
      // Both maps order keys bytewise, so members come out in the order a dump would give.
      out.push_back('{');
      bool first = true;
      for (const auto& [k, e] : *v.objectValue()) {
        if (!first) out.push_back(',');
        first = false;
        writeString(k, out);
        out.push_back(':');
        if (!writeValue(e, out)) return false;
      }
      out.push_back('}');
      return true;
    }
  }
  return false;
}

}  // namespace

JSONValue::ReadResult JSONValue::read(std::string_view text) {
  ValueBuilder builder;
  bool ok = false;
  try {
    ok = json::sax_parse(text, &builder, json::input_format_t::json, /*strict=*/true);
  } catch (const std::exception& e) {
    builder.error = e.what();
    ok = false;
  }
  if (!ok || !builder.root) {
    if (builder.error.empty()) builder.error = "Unsupported JSON value";
    return {std::nullopt, std::move(builder.error)};
  }
  return {std::move(builder.root), std::string()};
}

std::optional<std::string> JSONValue::write() const {
  std::string out;
  if (!writeTo(out)) return std::nullopt;
  return out;
}

bool JSONValue::writeTo(std::string& out) const {
  const auto mark = out.size();
  try {
    if (writeValue(*this, out)) return true;
  } catch (const std::exception&) {
  }
  out.resize(mark);
  return false;
}

std::string_view toString(JSONValue::Kind kind) {
  switch (kind) {
    case JSONValue::Kind::object:
      return "object";
    case JSONValue::Kind::array:
      return "array";
    case JSONValue::Kind::string:
      return "string";
    case JSONValue::Kind::number:
      return "number";
    case JSONValue::Kind::boolean:
      return "bool";
    case JSONValue::Kind::null:
      return "null";
  }
  return "unknown";
}

}  // namespace quorel
