#include "mcp/json_rpc.hpp"

#include <cmath>

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
  auto value = JSONValue::parse(body);
  if (!value) return std::nullopt;
  return fromJSON(*value);
}

JSONValue JSONRPCRequest::toJSON() const {
  JSONValue::Object o{{"jsonrpc", JSONValue(jsonrpc)}, {"method", JSONValue(method)}};
  if (id) o.emplace("id", *id);
  if (params) o.emplace("params", *params);
  return JSONValue(std::move(o));
}

JSONRPCResponse JSONRPCResponse::success(std::optional<JSONValue> id, JSONValue result) {
  return JSONRPCResponse{"2.0", std::move(id), std::move(result), std::nullopt};
}

JSONRPCResponse JSONRPCResponse::failure(std::optional<JSONValue> id, JSONRPCErrorObject error) {
  return JSONRPCResponse{"2.0", std::move(id), std::nullopt, std::move(error)};
}

JSONValue JSONRPCResponse::toJSON() const {
  JSONValue::Object o{{"jsonrpc", JSONValue(jsonrpc)}};
  if (id) o.emplace("id", *id);
  if (result) o.emplace("result", *result);
  if (error) o.emplace("error", error->toJSON());
  return JSONValue(std::move(o));
}

std::optional<std::string> JSONRPCResponse::encode() const {
  // The members written in place rather than copied into an object first, in the order the
  // object would give them (keys sorted bytewise), so the text is that of toJSON().
  std::string out = "{";
  if (error) {
    out.append("\"error\":");
    if (!error->toJSON().writeTo(out)) return std::nullopt;
    out.push_back(',');
  }
  if (id) {
    out.append("\"id\":");
    if (!id->writeTo(out)) return std::nullopt;
    out.push_back(',');
  }
  out.append("\"jsonrpc\":");
  JSONValue(jsonrpc).writeTo(out);
  if (result) {
    out.append(",\"result\":");
    if (!result->writeTo(out)) return std::nullopt;
  }
  out.push_back('}');
  return out;
}

std::optional<JSONRPCResponse> JSONRPCResponse::decode(std::string_view body) {
  auto value = JSONValue::parse(body);
  if (!value || !value->isObject()) return std::nullopt;
  auto jsonrpc = requiredString(*value, "jsonrpc");
  if (!jsonrpc) return std::nullopt;
  JSONRPCResponse r{std::move(*jsonrpc), presentMember(*value, "id"),
                    presentMember(*value, "result"), std::nullopt};
  if (auto e = presentMember(*value, "error")) {
    const JSONValue* code = e->find("code");
    auto message = requiredString(*e, "message");
    auto integer = code ? exactInteger(*code) : std::nullopt;
    if (!integer || !message) return std::nullopt;
    r.error = JSONRPCErrorObject{*integer, std::move(*message), presentMember(*e, "data")};
  }
  return r;
}

std::optional<MCPMethod> mcpMethodFromString(std::string_view name) {
  for (MCPMethod m :
       {MCPMethod::initialize, MCPMethod::toolsList, MCPMethod::toolsCall, MCPMethod::ping}) {
    if (wireName(m) == name) return m;
  }
  return std::nullopt;
}

std::string_view wireName(MCPMethod method) {
  switch (method) {
    case MCPMethod::initialize:
      return "initialize";
    case MCPMethod::toolsList:
      return "tools/list";
    case MCPMethod::toolsCall:
      return "tools/call";
    case MCPMethod::ping:
      return "ping";
  }
  return {};
}

}  // namespace quorel
