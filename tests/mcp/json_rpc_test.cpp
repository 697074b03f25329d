#include "mcp/json_rpc.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace quorel {
namespace {

TEST(JSONRPCRequestTest, VersionIsRequiredButNeverCompared) {
  auto r = JSONRPCRequest::decode(R"({"jsonrpc":"1.0","id":1,"method":"ping"})");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->jsonrpc, "1.0");
  EXPECT_EQ(r->id, JSONValue(1));
  EXPECT_EQ(r->method, "ping");
  EXPECT_FALSE(r->params);

  EXPECT_FALSE(JSONRPCRequest::decode(R"({"id":1,"method":"ping"})"));
  EXPECT_FALSE(JSONRPCRequest::decode(R"({"jsonrpc":2,"id":1,"method":"ping"})"));
  EXPECT_FALSE(JSONRPCRequest::decode(R"({"jsonrpc":null,"id":1,"method":"ping"})"));
}

TEST(JSONRPCRequestTest, MethodMustBeAString) {
  EXPECT_FALSE(JSONRPCRequest::decode(R"({"jsonrpc":"2.0","id":1})"));
  EXPECT_FALSE(JSONRPCRequest::decode(R"({"jsonrpc":"2.0","id":1,"method":7})"));
}

TEST(JSONRPCRequestTest, NullIdAndNullParamsReadAsAbsent) {
  auto withNull = JSONRPCRequest::decode(
      R"({"jsonrpc":"2.0","id":null,"method":"notifications/initialized","params":null})");
  auto without =
      JSONRPCRequest::decode(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
  ASSERT_TRUE(withNull && without);
  EXPECT_EQ(*withNull, *without);
  EXPECT_FALSE(withNull->id);
  EXPECT_FALSE(withNull->params);
}

TEST(JSONRPCRequestTest, IdAndParamsKeepAnyKind) {
  auto r = JSONRPCRequest::decode(
      R"({"jsonrpc":"2.0","id":"abc","method":"tools/call","params":[1,{"a":true}],"extra":1})");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->id, JSONValue("abc"));
  EXPECT_EQ(r->params, JSONValue::array({1, JSONValue::object({{"a", true}})}));
}

TEST(JSONRPCRequestTest, BodiesThatAreNotOneRequestObjectFail) {
  for (std::string_view body : {"", "null", "[]", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])",
                                "\"ping\"", "{", R"({"jsonrpc":"2.0","method":"ping"} x)"}) {
    EXPECT_FALSE(JSONRPCRequest::decode(body)) << body;
  }
}

TEST(JSONRPCResponseTest, AbsentFieldsAreLeftOutNotWrittenAsNull) {
  auto parseFailure = JSONRPCResponse::failure(std::nullopt, JSONRPCErrorObject::parseError);
  const std::string text = parseFailure.encode().value_or("");
  EXPECT_EQ(text.find("\"id\""), std::string::npos) << text;
  EXPECT_EQ(JSONValue::parse(text),
            JSONValue::object(
                {{"jsonrpc", "2.0"},
                 {"error", JSONValue::object({{"code", -32700}, {"message", "Parse error"}})}}));

  auto ok = JSONRPCResponse::success(JSONValue(7), JSONValue::object({}));
  auto written = JSONValue::parse(*ok.encode());
  ASSERT_TRUE(written);
  EXPECT_EQ(*written,
            JSONValue::object({{"jsonrpc", "2.0"}, {"id", 7}, {"result", JSONValue::object({})}}));
  EXPECT_FALSE(written->find("error"));
}

TEST(JSONRPCResponseTest, EncodingWritesExactlyTheTextOfTheResponseObject) {
  const JSONRPCErrorObject withData{kJSONRPCInvalidParams, "bad \"x\"", JSONValue("d\n")};
  const JSONRPCResponse cases[] = {
      JSONRPCResponse::success(JSONValue(7), JSONValue::object({{"tools", JSONValue::array({})}})),
      JSONRPCResponse::success(JSONValue("ü-id"), JSONValue(nullptr)),
      JSONRPCResponse::failure(std::nullopt, JSONRPCErrorObject::parseError),
      JSONRPCResponse::failure(JSONValue(2.5), withData),
      // Not a valid response, but every member at once shows their order.
      JSONRPCResponse{"2.0", JSONValue(1), JSONValue(true), withData},
      JSONRPCResponse{"2.0", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& response : cases) {
    const auto expected = response.toJSON().write();
    ASSERT_TRUE(expected);
    EXPECT_EQ(response.encode(), expected);
  }
  EXPECT_FALSE(JSONRPCResponse::success(JSONValue(INFINITY), JSONValue(1)).encode());
}

TEST(JSONRPCResponseTest, AResultThatIsNotFiniteCannotBeEncoded) {
  auto r = JSONRPCResponse::success(JSONValue(1), JSONValue::object({{"w", std::nan("")}}));
  EXPECT_FALSE(r.encode());
}

TEST(JSONRPCResponseTest, DecodeReadsWhatEncodeWrites) {
  auto error =
      JSONRPCResponse::failure(JSONValue("x"), {kJSONRPCInvalidParams, "Invalid params: nope", {}});
  EXPECT_EQ(JSONRPCResponse::decode(*error.encode()), error);
  auto success = JSONRPCResponse::success(JSONValue(3), JSONValue::array({1, 2}));
  EXPECT_EQ(JSONRPCResponse::decode(*success.encode()), success);
  // An error code must be an integer.
  EXPECT_FALSE(JSONRPCResponse::decode(R"({"jsonrpc":"2.0","error":{"code":1.5,"message":"m"}})"));
}

TEST(MCPMethodTest, NamesMatchExactlyAndCaseSensitively) {
  EXPECT_EQ(mcpMethodFromString("initialize"), MCPMethod::initialize);
  EXPECT_EQ(mcpMethodFromString("tools/list"), MCPMethod::toolsList);
  EXPECT_EQ(mcpMethodFromString("tools/call"), MCPMethod::toolsCall);
  EXPECT_EQ(mcpMethodFromString("ping"), MCPMethod::ping);
  for (std::string_view other : {"Ping", "tools/list ", "", "notifications/initialized", "tools"}) {
    EXPECT_FALSE(mcpMethodFromString(other)) << other;
  }
}

}  // namespace
}  // namespace quorel
