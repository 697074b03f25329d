#include "mcp/json_rpc.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

namespace quorel {
namespace {

using DecodeCase = std::pair<std::string, std::optional<JSONRPCRequest>>;

JSONRPCRequest request(std::string method, std::optional<JSONValue> id = std::nullopt,
                       std::optional<JSONValue> params = std::nullopt,
                       std::string jsonrpc = "2.0") {
  return JSONRPCRequest{std::move(jsonrpc), std::move(id), std::move(method), std::move(params)};
}

// Decodes each body and checks the outcome, and that reading the body as a value and then
// converting it agrees, so that the two ways in stay one behaviour.
void expectDecodes(const std::vector<DecodeCase>& cases) {
  for (const auto& [body, expected] : cases) {
    EXPECT_EQ(JSONRPCRequest::decode(body), expected) << body;
    auto value = JSONValue::parse(body);
    EXPECT_EQ(value ? JSONRPCRequest::fromJSON(*value) : std::nullopt, expected) << body;
  }
}

// `levels` arrays, one inside the other, around a 1.
std::string nestedArrays(int levels) {
  return std::string(static_cast<std::size_t>(levels), '[') + "1" +
         std::string(static_cast<std::size_t>(levels), ']');
}

JSONValue nestedArraysValue(int levels) {
  JSONValue v(1);
  for (int i = 0; i < levels; ++i) v = JSONValue::array({v});
  return v;
}

TEST(JSONRPCRequestTest, AMemberGivenTwiceCountsByItsLastValue) {
  expectDecodes({
      {R"({"jsonrpc":"2.0","method":"a","method":5})", std::nullopt},
      {R"({"jsonrpc":"2.0","method":5,"method":"a"})", request("a")},
      // An escaped key names the same member as the plain one.
      {R"({"jsonrpc":"2.0","method":"a","meth\u006fd":"b"})", request("b")},
      {R"({"jsonrpc":"2.0","method":"m","id":null,"id":"b"})", request("m", JSONValue("b"))},
      {R"({"jsonrpc":"2.0","method":"m","params":{"a":1},"params":[2]})",
       request("m", {}, JSONValue::array({2}))},
  });
}

TEST(JSONRPCRequestTest, EachMemberIsKeptOrRefusedByItsKind) {
  expectDecodes({
      // "jsonrpc" is required as a string but never compared.
      {R"({"jsonrpc":"1.0","id":1,"method":"ping"})", request("ping", JSONValue(1), {}, "1.0")},
      {R"({"id":1,"method":"ping"})", std::nullopt},
      {R"({"jsonrpc":2,"id":1,"method":"ping"})", std::nullopt},
      {R"({"jsonrpc":null,"id":1,"method":"ping"})", std::nullopt},
      {R"({"jsonrpc":"2.0","id":1})", std::nullopt},
      {R"({"jsonrpc":"2.0","id":1,"method":7})", std::nullopt},
      // A null id or params reads as absent, so such a request is a notification.
      {R"({"jsonrpc":"2.0","id":null,"method":"n","params":null})", request("n")},
      // Any other kind is kept as given, every number as a float; other members are ignored.
      {R"({"jsonrpc":"2.0","method":"m","id":"abc","params":[1,{"a":true}],"extra":1})",
       request("m", JSONValue("abc"), JSONValue::array({1, JSONValue::object({{"a", true}})}))},
      {R"({"jsonrpc":"2.0","method":"m","id":1.0})", request("m", JSONValue(1))},
      {R"({"jsonrpc":"2.0","method":"m","id":18446744073709551615})",
       request("m", JSONValue(18446744073709551615.0))},
      {R"({"jsonrpc":"2.0","method":"m","id":{"n":[false]}})",
       request("m", JSONValue::object({{"n", JSONValue::array({false})}}))},
      {R"({"jsonrpc":"2.0","method":"m","params":"text"})", request("m", {}, JSONValue("text"))},
  });
}

TEST(JSONRPCRequestTest, MembersThatAreNotKeptMustStillBeValidJSON) {
  expectDecodes({
      {R"({"jsonrpc":"2.0","method":"m","x":[1,]})", std::nullopt},
      {"{\"jsonrpc\":\"2.0\",\"method\":\"m\",\"x\":\"\xff\"}", std::nullopt},
      {R"({"jsonrpc":"2.0","method":"m","x":"\ud800"})", std::nullopt},
      {R"({"jsonrpc":"2.0","method":"m","x":{"y":[true,null,"\n"]}})", request("m")},
  });
}

TEST(JSONRPCRequestTest, NestingIsLimitedWhereverItIsEvenInMembersNotKept) {
  // The request object is the first level, so a member may hold one level fewer than a value.
  const int inside = JSONValue::kMaxReadDepth - 1;
  for (int levels : {inside, inside + 1}) {
    const std::string deep = nestedArrays(levels);
    const auto expected = [&](JSONRPCRequest r) {
      return levels <= inside ? std::optional<JSONRPCRequest>(std::move(r)) : std::nullopt;
    };
    SCOPED_TRACE(levels);
    expectDecodes({
        {R"({"jsonrpc":"2.0","method":"m","x":)" + deep + "}", expected(request("m"))},
        {R"({"jsonrpc":"2.0","method":"m","params":)" + deep + "}",
         expected(request("m", {}, nestedArraysValue(levels)))},
        // A value replaced by a later one still had to be within the limit.
        {R"({"jsonrpc":"2.0","method":)" + deep + R"(,"method":"m"})", expected(request("m"))},
        {R"({"jsonrpc":"2.0","method":"m","params":)" + deep + R"(,"params":null})",
         expected(request("m"))},
    });
  }
}

TEST(JSONRPCRequestTest, BodiesThatAreNotOneRequestObjectFail) {
  for (std::string_view body : {"", "null", "[]", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])",
                                "\"ping\"", "{", R"({"jsonrpc":"2.0","method":"ping"} x)"}) {
    EXPECT_FALSE(JSONRPCRequest::decode(body)) << body;
  }
}

TEST(JSONRPCResponseTest, EncodingWritesExactlyTheTextOfTheResponseObject) {
  const JSONRPCErrorObject withData{kJSONRPCInvalidParams, "bad \"x\"", JSONValue("d\n")};
  const JSONRPCResponse cases[] = {
      JSONRPCResponse::success(JSONValue(7), JSONValue::object({{"tools", JSONValue::array({})}})),
      JSONRPCResponse::failure(JSONValue(2.5), withData),
      // Not a valid response, but every member at once shows their order.
      JSONRPCResponse{"2.0", JSONValue(1), JSONValue(true), withData, std::nullopt},
      JSONRPCResponse{"2.0", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
      // A result given as text stands where the value would, after the id.
      JSONRPCResponse::successText(JSONValue("a"), R"({"content":[{"text":"{\"x\":1}"}]})"),
  };
  for (const auto& response : cases) {
    const auto expected = response.toJSON().write();
    ASSERT_TRUE(expected);
    EXPECT_EQ(response.encode(), expected);
    std::string appended = "before";
    EXPECT_TRUE(response.encodeTo(appended));
    EXPECT_EQ(appended, "before" + *expected);
  }
  // A value that is not finite cannot be written, and half a response is never left behind in
  // a buffer that is being added to.
  for (const auto& unwritable :
       {JSONRPCResponse::success(JSONValue(INFINITY), JSONValue(1)),
        JSONRPCResponse::success(JSONValue(1), JSONValue::object({{"w", std::nan("")}}))}) {
    EXPECT_FALSE(unwritable.encode());
    std::string out = "kept";
    EXPECT_FALSE(unwritable.encodeTo(out));
    EXPECT_EQ(out, "kept");
  }
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

}  // namespace
}  // namespace quorel
