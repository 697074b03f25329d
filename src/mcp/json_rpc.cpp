#include "mcp/json_rpc.hpp"

#include <array>
#include <cmath>
#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "core/enum_text.hpp"

namespace quorel {

const JSONRPCErrorObject JSONRPCErrorObject::parseError{kJSONRPCParseError, "Parse error", {}};

namespace {

// Absent key and JSON null both mean "not there".
std::optional<JSONValue> presentMember(const JSONValue& object, std::string_view key) {
  const JSONValue* v = object.find(key);
  if (v == nullptr || v->isNull()) return std::nullopt;
  return *v;
}

std::optional<std::string> requiredString(const JSONValue& object, std::string_view key) {
  const JSONValue* v = object.find(key);
  if (v == nullptr || !v->isString()) return std::nullopt;
  return *v->stringValue();
}

// Fills a request straight from the parser's events, as reading the body into a JSONValue and
// then calling fromJSON would, without building the members that a request does not keep:
// "jsonrpc" and "method" are kept while they are strings, the values of "id" and "params" are
// built, and every other member is passed over, its nesting still counted against the limit. A
// member given twice counts by its last value, as in a JSONValue.
class RequestEvents {
 public:
  using json = nlohmann::json;

  // The request, once the parser has accepted the whole text.
  std::optional<JSONRPCRequest> take() {
    if (!jsonrpcIsString_ || !methodIsString_) return std::nullopt;
    return std::move(request_);
  }

  bool null() { return building_ ? builder_.null() : member(JSONValue(nullptr)); }
  bool boolean(bool b) { return building_ ? builder_.boolean(b) : member(JSONValue(b)); }
  bool number_integer(json::number_integer_t n) {
    return building_ ? builder_.numberInteger(n) : member(JSONValue(n));
  }
  bool number_unsigned(json::number_unsigned_t n) {
    return building_ ? builder_.numberUnsigned(n) : member(JSONValue(n));
  }
  bool number_float(json::number_float_t n, const json::string_t&) {
    return building_ ? builder_.numberFloat(n) : member(JSONValue(n));
  }
  bool string(json::string_t& s) { return building_ ? builder_.string(s) : stringMember(s); }
  bool binary(json::binary_t&) { return false; }
  bool start_object(std::size_t) { return open(true); }
  bool start_array(std::size_t) { return open(false); }
  bool key(json::string_t& k) {
    if (building_) return builder_.key(k);
    if (depth_ == 1) field_ = fieldNamed(k);
    return true;
  }
  bool end_object() { return close(); }
  bool end_array() { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

 private:
  enum class Field { other, jsonrpc, id, method, params };

  JSONRPCRequest request_;
  bool jsonrpcIsString_ = false;
  bool methodIsString_ = false;
  // Containers open around the next event, the request object itself included; while a value is
  // being built it stays at 1 and the builder counts the rest.
  int depth_ = 0;
  // The member of the request object whose value comes next.
  Field field_ = Field::other;
  bool building_ = false;
  JSONValueBuilder builder_;

  static Field fieldNamed(std::string_view k) {
    if (k == "jsonrpc") return Field::jsonrpc;
    if (k == "id") return Field::id;
    if (k == "method") return Field::method;
    if (k == "params") return Field::params;
    return Field::other;
  }

  std::optional<JSONValue>& builtField() {
    return field_ == Field::id ? request_.id : request_.params;
  }

  // A scalar outside any value being built: the whole body when depth_ is 0, which is then not
  // an object; a member of the request at 1; inside a member passed over deeper.
  bool member(JSONValue v) {
    if (depth_ != 1) return depth_ > 1;
    if (field_ == Field::id || field_ == Field::params) {
      // A JSON null reads as absent.
      if (v.isNull()) {
        builtField().reset();
      } else {
        builtField() = std::move(v);
      }
    } else {
      notAString();
    }
    return true;
  }

  // The member at hand, if it is "jsonrpc" or "method", now has a value that is not a string.
  void notAString() {
    if (field_ == Field::jsonrpc) jsonrpcIsString_ = false;
    if (field_ == Field::method) methodIsString_ = false;
  }

  bool stringMember(const std::string& s) {
    if (depth_ != 1) return depth_ > 1;
    switch (field_) {
      case Field::jsonrpc:
        request_.jsonrpc = s;
        jsonrpcIsString_ = true;
        break;
      case Field::method:
        request_.method = s;
        methodIsString_ = true;
        break;
      case Field::id:
      case Field::params:
        builtField() = JSONValue(std::string_view(s));
        break;
      case Field::other:
        break;
    }
    return true;
  }

  bool open(bool isObject) {
    if (building_) return isObject ? builder_.startObject() : builder_.startArray();
    if (depth_ == 0) {
      if (!isObject) return false;
      depth_ = 1;
      return true;
    }
    if (depth_ == 1) {
      if (field_ == Field::id || field_ == Field::params) {
        builder_.reset(/*enclosingDepth=*/1);
        building_ = true;
        return isObject ? builder_.startObject() : builder_.startArray();
      }
      notAString();
    }
    if (depth_ >= JSONValue::kMaxReadDepth) return false;
    ++depth_;
    return true;
  }

  bool close() {
    if (!building_) {
      --depth_;
      return true;
    }
    if (!builder_.endContainer()) return false;
    if (builder_.complete()) {
      builtField() = builder_.take();
      building_ = false;
    }
    return true;
  }
};

std::optional<std::int64_t> exactInteger(const JSONValue& v) {
  auto n = v.numberValue();
  if (!n || std::trunc(*n) != *n || *n < -9223372036854775808.0 || *n >= 9223372036854775808.0) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(*n);
}

}  // namespace

JSONValue JSONRPCErrorObject::toJSON() const {
  JSONValue::Object o{{"code", JSONValue(code)}, {"message", JSONValue(message)}};
  if (data) o.emplace("data", *data);
  return JSONValue(std::move(o));
}

std::optional<JSONRPCRequest> JSONRPCRequest::fromJSON(const JSONValue& value) {
  if (!value.isObject()) return std::nullopt;
  auto jsonrpc = requiredString(value, "jsonrpc");
  auto method = requiredString(value, "method");
  if (!jsonrpc || !method) return std::nullopt;
  return JSONRPCRequest{std::move(*jsonrpc), presentMember(value, "id"), std::move(*method),
                        presentMember(value, "params")};
}

std::optional<JSONRPCRequest> JSONRPCRequest::decode(std::string_view body) {
  RequestEvents events;
  try {
    if (!nlohmann::json::sax_parse(body, &events, nlohmann::json::input_format_t::json,
                                   /*strict=*/true)) {
      return std::nullopt;
    }
  } catch (const std::exception&) {
    return std::nullopt;
  }
  return events.take();
}

JSONValue JSONRPCRequest::toJSON() const {
  JSONValue::Object o{{"jsonrpc", JSONValue(jsonrpc)}, {"method", JSONValue(method)}};
  if (id) o.emplace("id", *id);
  if (params) o.emplace("params", *params);
  return JSONValue(std::move(o));
}

JSONRPCResponse JSONRPCResponse::success(std::optional<JSONValue> id, JSONValue result) {
  return JSONRPCResponse{"2.0", std::move(id), std::move(result), std::nullopt, std::nullopt};
}

JSONRPCResponse JSONRPCResponse::successText(std::optional<JSONValue> id, std::string resultText) {
  return JSONRPCResponse{"2.0", std::move(id), std::nullopt, std::nullopt, std::move(resultText)};
}

JSONRPCResponse JSONRPCResponse::failure(std::optional<JSONValue> id, JSONRPCErrorObject error) {
  return JSONRPCResponse{"2.0", std::move(id), std::nullopt, std::move(error), std::nullopt};
}

std::optional<JSONValue> JSONRPCResponse::resultValue() const {
  if (resultText) return JSONValue::parse(*resultText);
  return result;
}

JSONValue JSONRPCResponse::toJSON() const {
  JSONValue::Object o{{"jsonrpc", JSONValue(jsonrpc)}};
  if (id) o.emplace("id", *id);
  if (auto value = resultValue()) o.emplace("result", std::move(*value));
  if (error) o.emplace("error", error->toJSON());
  return JSONValue(std::move(o));
}

std::optional<std::string> JSONRPCResponse::encode() const {
  std::string out;
  if (!encodeTo(out)) return std::nullopt;
  return out;
}

bool JSONRPCResponse::encodeTo(std::string& out) const {
  // The members written in place rather than copied into an object first, in the order the
  // object would give them (keys sorted bytewise), so the text is that of toJSON().
  const auto mark = out.size();
  const auto fail = [&] {
    out.resize(mark);
    return false;
  };
  out.push_back('{');
  if (error) {
    out.append("\"error\":");
    if (!error->toJSON().writeTo(out)) return fail();
    out.push_back(',');
  }
  if (id) {
    out.append("\"id\":");
    if (!id->writeTo(out)) return fail();
    out.push_back(',');
  }
  out.append("\"jsonrpc\":");
  JSONValue(jsonrpc).writeTo(out);
  if (resultText) {
    out.append(",\"result\":").append(*resultText);
  } else if (result) {
    out.append(",\"result\":");
    if (!result->writeTo(out)) return fail();
  }
  out.push_back('}');
  return true;
}

std::optional<JSONRPCResponse> JSONRPCResponse::decode(std::string_view body) {
  auto value = JSONValue::parse(body);
  if (!value || !value->isObject()) return std::nullopt;
  auto jsonrpc = requiredString(*value, "jsonrpc");
  if (!jsonrpc) return std::nullopt;
  JSONRPCResponse r{std::move(*jsonrpc), presentMember(*value, "id"),
                    presentMember(*value, "result"), std::nullopt, std::nullopt};
  if (auto e = presentMember(*value, "error")) {
    const JSONValue* code = e->find("code");
    auto message = requiredString(*e, "message");
    auto integer = code ? exactInteger(*code) : std::nullopt;
    if (!integer || !message) return std::nullopt;
    r.error = JSONRPCErrorObject{*integer, std::move(*message), presentMember(*e, "data")};
  }
  return r;
}

namespace {

constexpr EnumTextTable kMCPMethodNames{std::array{
    std::pair{MCPMethod::initialize, std::string_view{"initialize"}},
    std::pair{MCPMethod::toolsList, std::string_view{"tools/list"}},
    std::pair{MCPMethod::toolsCall, std::string_view{"tools/call"}},
    std::pair{MCPMethod::ping, std::string_view{"ping"}},
}};

}  // namespace

std::optional<MCPMethod> mcpMethodFromString(std::string_view name) {
  return kMCPMethodNames.parse(name);
}

std::string_view wireName(MCPMethod method) {
  return kMCPMethodNames.text(method);
}

}  // namespace quorel
