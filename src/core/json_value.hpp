#pragma once
// The one dynamic JSON value that the MCP server, its tools and the battery command service hand
// around. A plain value: copied deeply, safe to pass between threads, compared by content.
// Every number is a 64-bit float; there is no integer case, so 1 and 1.0 are the same value.
// Text is read by nlohmann-json's parser; when written, string escapes and the layout of
// fractional numbers are nlohmann's too, their digits the shortest that read back alike. The
// rules of the value are ours.

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace quorel {

class JSONValue {
 public:
  // Keys are unique and their order is not kept.
  using Object = std::map<std::string, JSONValue, std::less<>>;
  using Array = std::vector<JSONValue>;

  // The cases, in the order in which text is tried against them when read.
  enum class Kind { object, array, string, number, boolean, null };

  // Deeper nesting than this is refused when reading text, so that a hostile body cannot exhaust
  // the stack of whoever converts or destroys the value.
  static constexpr int kMaxReadDepth = 512;

  JSONValue() noexcept : payload_(nullptr) {}
  JSONValue(std::nullptr_t) noexcept : payload_(nullptr) {}
  JSONValue(bool b) noexcept : payload_(b) {}
  template <class T>
  requires(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) JSONValue(T n)
  noexcept : payload_(static_cast<double>(n)) {}
  JSONValue(const char* s) : payload_(std::string(s)) {}
  JSONValue(std::string s) noexcept : payload_(std::move(s)) {}
  JSONValue(std::string_view s) : payload_(std::string(s)) {}
  JSONValue(Array a) noexcept : payload_(std::move(a)) {}
  JSONValue(Object o) noexcept : payload_(std::move(o)) {}

  // A key and value list; a key given twice keeps its last value.
  static JSONValue object(std::initializer_list<std::pair<std::string, JSONValue>> members);
  static JSONValue array(std::initializer_list<JSONValue> elements);

  Kind kind() const noexcept { return static_cast<Kind>(5 - payload_.index()); }
  bool isObject() const noexcept { return kind() == Kind::object; }
  bool isArray() const noexcept { return kind() == Kind::array; }
  bool isString() const noexcept { return kind() == Kind::string; }
  bool isNumber() const noexcept { return kind() == Kind::number; }
  bool isBool() const noexcept { return kind() == Kind::boolean; }
  bool isNull() const noexcept { return kind() == Kind::null; }

  // The payload when the value is of that kind; null or absent otherwise.
  const Object* objectValue() const noexcept { return std::get_if<Object>(&payload_); }
  const Array* arrayValue() const noexcept { return std::get_if<Array>(&payload_); }
  const std::string* stringValue() const noexcept { return std::get_if<std::string>(&payload_); }
  std::optional<double> numberValue() const noexcept;
  std::optional<bool> boolValue() const noexcept;

  // Member lookup that never fails: the member when this is an object holding `key`, absent in
  // every other case, including when this is not an object at all.
  const JSONValue* find(std::string_view key) const noexcept;
  std::optional<JSONValue> member(std::string_view key) const;

  // Deep equality; numbers compare as floats (so NaN differs from itself).
  bool operator==(const JSONValue& other) const;

  struct ReadResult;
  // Reads one JSON text. Never throws.
  static ReadResult read(std::string_view text);
  static std::optional<JSONValue> parse(std::string_view text);

  // JSON text without insignificant white space. Absent when a number is not finite. Whole
  // numbers are written without a fraction so that integers read back as integers. Invalid UTF-8
  // in strings is written as U+FFFD rather than failing the whole value.
  std::optional<std::string> write() const;
  // The same text appended to `out`; false, with `out` as it was, where write() gives nothing.
  bool writeTo(std::string& out) const;

 private:
  friend class JSONValueBuilder;

  // Alternatives are stored in reverse of Kind so that index 0 is null, the default.
  std::variant<std::nullptr_t, bool, double, std::string, Array, Object> payload_;
};

// Declared out of the class: std::optional<JSONValue> needs the complete type.
struct JSONValue::ReadResult {
  std::optional<JSONValue> value;
  // Set when `value` is absent: what was wrong with the text.
  std::string error;
};

inline std::optional<JSONValue> JSONValue::parse(std::string_view text) {
  return read(text).value;
}

std::string_view toString(JSONValue::Kind kind);

// Builds one JSONValue from a parser's events (the calls mirror nlohmann-json's SAX events, with
// the three number events kept apart so that they convert exactly as the constructors do). A
// container is put in its parent when it opens and filled where it lies, so nothing is copied or
// moved when it closes, and the path of open containers needs no heap. A key given twice keeps
// its last value. JSONValue::read feeds one from the whole text; a reader that wants only some
// members of a larger text feeds one the events of each member's value, saying how many
// containers already enclose it so that the depth limit counts from the top of the text.
// Not thread-safe; reusable after reset().
class JSONValueBuilder {
 public:
  explicit JSONValueBuilder(int enclosingDepth = 0) noexcept : enclosingDepth_(enclosingDepth) {}
  JSONValueBuilder(const JSONValueBuilder&) = delete;
  JSONValueBuilder& operator=(const JSONValueBuilder&) = delete;

  // Forgets any value under way and starts a new one.
  void reset(int enclosingDepth = 0) noexcept;

  // Each is false only where noted, or when a value arrives after the value was complete.
  bool null() { return put(JSONValue(nullptr)) != nullptr; }
  bool boolean(bool b) { return put(JSONValue(b)) != nullptr; }
  bool numberInteger(std::int64_t n) { return put(JSONValue(n)) != nullptr; }
  bool numberUnsigned(std::uint64_t n) { return put(JSONValue(n)) != nullptr; }
  bool numberFloat(double n) { return put(JSONValue(n)) != nullptr; }
  bool string(std::string_view s) { return put(JSONValue(s)) != nullptr; }
  // False when the innermost open container is not an object.
  bool key(std::string_view k);
  // False when opening would nest deeper than JSONValue::kMaxReadDepth, counting the enclosing
  // containers.
  bool startObject() { return open(JSONValue(JSONValue::Object())); }
  bool startArray() { return open(JSONValue(JSONValue::Array())); }
  // Closes the innermost open container (object or array alike: the parser has matched them).
  bool endContainer() noexcept;

  // Whether a whole value has been built: a scalar, or a container and everything in it.
  bool complete() const noexcept { return complete_; }
  // The value built; the builder is left empty. Only meaningful once complete().
  JSONValue take() noexcept { return std::move(root_); }

 private:
  JSONValue root_;
  int enclosingDepth_ = 0;
  int depth_ = 0;
  bool complete_ = false;
  // Where the next member of the innermost open object goes, once its key has been given.
  JSONValue* slot_ = nullptr;
  // The open containers, outermost first; the deepest nesting accepted is bounded, so a fixed
  // array serves. Left uninitialised: only entries below depth_ are ever read.
  std::array<JSONValue*, JSONValue::kMaxReadDepth> open_;

  JSONValue* put(JSONValue v);
  bool open(JSONValue empty);
  JSONValue* innermost() const noexcept { return open_[static_cast<std::size_t>(depth_ - 1)]; }
};

}  // namespace quorel
