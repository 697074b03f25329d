#include "core/json_value.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "core/json_text_writer.hpp"

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

// Hands nlohmann's parser events to a builder and keeps the reason a text was refused.
class ReadEvents {
 public:
  JSONValueBuilder builder;
  std::string error;

  bool null() { return builder.null(); }
  bool boolean(bool b) { return builder.boolean(b); }
  bool number_integer(json::number_integer_t n) { return builder.numberInteger(n); }
  bool number_unsigned(json::number_unsigned_t n) { return builder.numberUnsigned(n); }
  bool number_float(json::number_float_t n, const json::string_t&) {
    return builder.numberFloat(n);
  }
  bool string(json::string_t& s) { return builder.string(s); }
  bool binary(json::binary_t&) {
    error = "Unsupported JSON value";
    return false;
  }
  bool start_object(std::size_t) { return opened(builder.startObject()); }
  bool key(json::string_t& k) { return builder.key(k); }
  bool end_object() { return builder.endContainer(); }
  bool start_array(std::size_t) { return opened(builder.startArray()); }
  bool end_array() { return builder.endContainer(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) {
    error = e.what();
    return false;
  }

 private:
  // The builder refuses to open a container only past the depth limit.
  bool opened(bool ok) {
    if (!ok) {
      error = "JSON nested deeper than " + std::to_string(JSONValue::kMaxReadDepth) + " levels";
    }
    return ok;
  }
};

// The structure is written here; strings and numbers as the streaming writer writes them, in
// nlohmann's forms, so the text is what dumping the equivalent document would give.
bool writeValue(const JSONValue& v, std::string& out) {
  switch (v.kind()) {
    case JSONValue::Kind::null:
      out.append("null");
      return true;
    case JSONValue::Kind::boolean:
      out.append(*v.boolValue() ? "true" : "false");
      return true;
    case JSONValue::Kind::string:
      json_text::appendString(out, *v.stringValue());
      return true;
    case JSONValue::Kind::number:
      return json_text::appendNumber(out, *v.numberValue());
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
        json_text::appendString(out, k);
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

void JSONValueBuilder::reset(int enclosingDepth) noexcept {
  root_ = JSONValue();
  enclosingDepth_ = enclosingDepth;
  depth_ = 0;
  complete_ = false;
  slot_ = nullptr;
}

bool JSONValueBuilder::key(std::string_view k) {
  if (depth_ == 0) return false;
  auto* object = std::get_if<JSONValue::Object>(&innermost()->payload_);
  if (object == nullptr) return false;
  // The member is made (null) when its key arrives and its value lands on it later: a repeated
  // key finds the member already there and overwrites it, so the last value wins.
  auto it = object->lower_bound(k);
  if (it == object->end() || it->first != k) {
    it = object->emplace_hint(it, std::string(k), JSONValue());
  }
  slot_ = &it->second;
  return true;
}

bool JSONValueBuilder::endContainer() noexcept {
  if (depth_ == 0) return false;
  --depth_;
  slot_ = nullptr;
  complete_ = depth_ == 0;
  return true;
}

JSONValue* JSONValueBuilder::put(JSONValue v) {
  if (complete_) return nullptr;
  if (depth_ == 0) {
    root_ = std::move(v);
    // A scalar is the whole value; a container is whole only when it closes.
    complete_ = !root_.isObject() && !root_.isArray();
    return &root_;
  }
  // Only the innermost container grows, so the open ones above it never move.
  if (auto* array = std::get_if<JSONValue::Array>(&innermost()->payload_)) {
    return &array->emplace_back(std::move(v));
  }
  if (slot_ == nullptr) return nullptr;
  JSONValue* target = std::exchange(slot_, nullptr);
  *target = std::move(v);
  return target;
}

bool JSONValueBuilder::open(JSONValue empty) {
  if (depth_ >= JSONValue::kMaxReadDepth - std::max(enclosingDepth_, 0)) return false;
  JSONValue* container = put(std::move(empty));
  if (container == nullptr) return false;
  open_[static_cast<std::size_t>(depth_++)] = container;
  return true;
}

JSONValue::ReadResult JSONValue::read(std::string_view text) {
  ReadEvents events;
  bool ok = false;
  try {
    ok = json::sax_parse(text, &events, json::input_format_t::json, /*strict=*/true);
  } catch (const std::exception& e) {
    events.error = e.what();
    ok = false;
  }
  if (!ok || !events.builder.complete()) {
    if (events.error.empty()) events.error = "Unsupported JSON value";
    return {std::nullopt, std::move(events.error)};
  }
  return {events.builder.take(), std::string()};
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
