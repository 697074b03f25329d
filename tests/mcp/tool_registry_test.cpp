// The tool catalogue's shape and the dispatch of "tools/call": argument rules, refusals, and
// results that are always tool results.

#include <gtest/gtest.h>

#include <set>

#include "mcp/mcp_tool_registry.hpp"
#include "snapshot_test_fixture.hpp"

namespace quorel {
namespace {

using testing::kT0;

// Records what reached it and answers with what it was given.
struct FakeCommands final : BatteryCommands {
  JSONValue state() const override { return JSONValue::object({{"state", true}}); }
  JSONValue automation() const override { return JSONValue::object({{"automation", true}}); }
  void setChargeLimit(std::int64_t percent, BatteryCommandCompletion done) override {
    calls.push_back("limit " + std::to_string(percent));
    done(next);
  }
  void setForceDischarge(bool enable, BatteryCommandCompletion done) override {
    calls.push_back(std::string("discharge ") + (enable ? "on" : "off"));
    done(next);
  }
  void setTopUp(bool enable, BatteryCommandCompletion done) override {
    calls.push_back(std::string("top-up ") + (enable ? "on" : "off"));
    done(next);
  }
  BatteryCommandResult setSmartTopOffRules(std::vector<TopOffRule> rules) override {
    calls.push_back("rules " + std::to_string(rules.size()));
    return next;
  }
  BatteryCommandResult setHeatProtection(std::int64_t threshold, std::int64_t hysteresis) override {
    calls.push_back("heat " + std::to_string(threshold) + "/" + std::to_string(hysteresis));
    return next;
  }
  std::vector<std::string> calls;
  BatteryCommandResult next = JSONValue::object({{"done", true}});
};

class ToolRegistryTest : public testing::SnapshotFixture {
 protected:
  // Calls a tool and lets whatever it waits for run.
  JSONRPCResponse call(const std::string& name, const char* arguments = nullptr) {
    std::optional<JSONRPCResponse> got;
    std::optional<JSONValue> args;
    if (arguments) args = JSONValue::parse(arguments).value();
    registry.callTool(name, args, JSONValue(7), [&](JSONRPCResponse r) { got = std::move(r); });
    db.queue().runPending();
    main.runPending();
    EXPECT_TRUE(got) << name << " never answered";
    EXPECT_EQ(got.value_or(JSONRPCResponse{}).id, JSONValue(7));
    return got.value_or(JSONRPCResponse{});
  }
  // The value inside a tool result.
  static JSONValue payload(const JSONRPCResponse& r) {
    EXPECT_FALSE(r.error) << r.error->message;
    // Read back from the wire, as the results written as text are held only as text.
    const JSONValue result = JSONRPCResponse::decode(r.encode().value_or(""))
                                 .value_or(JSONRPCResponse{})
                                 .result.value_or(nullptr);
    EXPECT_EQ(result.member("isError"), JSONValue(false));
    const JSONValue item = (*result.find("content")->arrayValue()).at(0);
    EXPECT_EQ(item.member("type"), JSONValue("text"));
    return JSONValue::parse(*item.find("text")->stringValue()).value_or(nullptr);
  }
  static std::string refusal(const JSONRPCResponse& r) {
    EXPECT_FALSE(r.result || r.resultText);
    EXPECT_EQ(r.error.value_or(JSONRPCErrorObject{}).code, kJSONRPCInvalidParams);
    return r.error.value_or(JSONRPCErrorObject{}).message;
  }

  FakeCommands commands;
  MCPToolRegistry registry{*provider, commands};
};

TEST_F(ToolRegistryTest, TheListFollowsTheCatalogueAndEverySchemaHasOneShape) {
  const auto& listed = *MCPToolRegistry::toolsListJSON().find("tools")->arrayValue();
  const auto& catalogue = MCPToolRegistry::catalogue();
  ASSERT_EQ(listed.size(), 19u);
  ASSERT_EQ(listed.size(), catalogue.size());
  std::set<std::string> names;
  const std::set<std::string> kinds{"string", "integer", "boolean", "array"};
  for (std::size_t i = 0; i < listed.size(); ++i) {
    const JSONValue& tool = listed[i];
    EXPECT_EQ(tool.objectValue()->size(), 3u);
    EXPECT_EQ(tool.member("name"), JSONValue(catalogue[i].name)) << "order kept";
    EXPECT_FALSE(tool.find("description")->stringValue()->empty());
    names.insert(catalogue[i].name);

    const JSONValue& schema = *tool.find("inputSchema");
    SCOPED_TRACE(catalogue[i].name);
    EXPECT_EQ(schema.member("type"), JSONValue("object"));
    const auto& properties = *schema.find("properties")->objectValue();
    for (const auto& [key, property] : properties) {
      EXPECT_EQ(property.objectValue()->size(), 2u) << "no bounds, enumerations or item types";
      EXPECT_TRUE(kinds.contains(*property.find("type")->stringValue())) << key;
      EXPECT_TRUE(property.find("description")->isString());
    }
    if (const JSONValue* required = schema.find("required")) {
      ASSERT_FALSE(required->arrayValue()->empty()) << "an empty list is left out";
      for (const JSONValue& name : *required->arrayValue()) {
        EXPECT_TRUE(properties.contains(*name.stringValue()));
      }
    }
    // Every tool answers something other than "unknown tool".
    std::optional<JSONRPCResponse> answered;
    registry.callTool(catalogue[i].name, std::nullopt, 1,
                      [&](JSONRPCResponse r) { answered = std::move(r); });
    db.queue().runPending();
    main.runPending();
    ASSERT_TRUE(answered);
    if (answered->error) {
      EXPECT_NE(answered->error->message, MCPToolRegistry::unknownTool(catalogue[i].name).message);
    }
  }
  EXPECT_EQ(names.size(), 19u) << "names are unique";
}

TEST_F(ToolRegistryTest, IntegerArgumentsAreTruncatedNumbersThatFitAndNothingElse) {
  struct Case {
    const char* arguments;
    std::optional<std::int64_t> value;
  };
  const Case cases[] = {
      {R"({"n":80.9})", 80},
      {R"({"n":-80.9})", -80},
      {R"({"n":"80"})", std::nullopt},
      {R"({"n":true})", std::nullopt},
      {R"({"n":null})", std::nullopt},
      {R"({"n":9.3e18})", std::nullopt},
      {R"({"n":-9.223372036854775808e18})", std::nullopt},
      {R"({"n":9.2e18})", 9'200'000'000'000'000'000},
      {R"({})", std::nullopt},
      {R"([80])", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(MCPToolRegistry::integerArgument(JSONValue::parse(c.arguments).value(), "n"), c.value)
        << c.arguments;
  }
}

TEST_F(ToolRegistryTest, CommandArgumentsAreRefusedWithTheirOwnWords) {
  const std::string percent = "Invalid params: `percent` (integer) is required.";
  const std::string enabled = "Invalid params: `enabled` (boolean) is required.";
  const std::string heat =
      "Invalid params: `threshold_c` and `hysteresis_c` (integers) are required.";
  const std::string rules = "Invalid params: `rules` (array) is required.";
  struct Case {
    const char* tool;
    const char* arguments;
    const std::string& message;
  };
  const Case cases[] = {
      {"set_charge_limit", R"({"percent":"80"})", percent},
      {"set_charge_limit", nullptr, percent},
      {"set_charge_limit", R"([80])", percent},
      {"set_force_discharge", R"({"enabled":"true"})", enabled},
      {"set_top_up", R"({"enabled":1})", enabled},
      {"set_heat_protection", R"({"threshold_c":40})", heat},
      {"set_heat_protection", R"({"threshold_c":40,"hysteresis_c":"3"})", heat},
      {"set_smart_topoff_rules", R"({"rules":{}})", rules},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(refusal(call(c.tool, c.arguments)), c.message) << c.tool << " " << c.arguments;
  }
  EXPECT_TRUE(commands.calls.empty()) << "a refused call reaches no command";

  const std::string decode = refusal(call("set_smart_topoff_rules", R"({"rules":[{}]})"));
  EXPECT_EQ(decode.rfind("Invalid params: Could not decode `rules`: missing key `", 0), 0u)
      << decode;
  EXPECT_NE(decode.find(" at `Index 0"), std::string::npos) << decode;

  EXPECT_EQ(refusal(call("Get_Overview")), "Invalid params: Unknown tool: Get_Overview");
  EXPECT_TRUE(commands.calls.empty());
}

TEST_F(ToolRegistryTest, CommandsGetTheirArgumentsAndTheirAnswersAsResultsOrErrors) {
  EXPECT_EQ(payload(call("set_charge_limit", R"({"percent":80.9})")),
            JSONValue::object({{"done", true}}));
  call("set_force_discharge", R"({"enabled":false})");
  call("set_top_up", R"({"enabled":true})");
  call("set_heat_protection", R"({"threshold_c":40.5,"hysteresis_c":3})");
  call("set_smart_topoff_rules", R"({"rules":[]})");
  EXPECT_EQ(commands.calls, (std::vector<std::string>{"limit 80", "discharge off", "top-up on",
                                                      "heat 40/3", "rules 0"}));
  EXPECT_EQ(payload(call("get_battery_control_state")), commands.state());
  EXPECT_EQ(payload(call("get_battery_automation", "[1]")), commands.automation());

  commands.next = MCPToolError{kCommandFailed, "The helper didn't answer."};
  const JSONRPCResponse failed = call("set_charge_limit", R"({"percent":70})");
  EXPECT_FALSE(failed.result);
  EXPECT_EQ(failed.error, (JSONRPCErrorObject{kCommandFailed, "The helper didn't answer.", {}}));
}

TEST_F(ToolRegistryTest, ReadToolsAnswerWithTheProvidersObjects) {
  PowerState s;
  s.phase = PowerPhase::draining;
  s.batteryInstalled = true;
  s.smoothedWattage = -7;
  s.timestamp = at(0);
  show(s);
  EXPECT_EQ(payload(call("get_current_power")), provider->getCurrentPower());
  EXPECT_EQ(payload(call("get_overview")), provider->getOverview());
  EXPECT_EQ(payload(call("get_battery_health")), payload(call("battery_health_trend")));
  EXPECT_EQ(payload(call("battery_health_trend")).member("available"), JSONValue(true));

  // Limits: a string is no limit (the default 8), a negative one is clamped to 1.
  auto sql = this->sql();
  for (int i = 0; i < 10; ++i) {
    sql.insert("process_energy", {{"timestamp", kT0 - 600.0},
                                  {"process_name", "p" + std::to_string(i)},
                                  {"avg_cpu", 1.0},
                                  {"avg_watts", 1.0 + i},
                                  {"energy_wh", 0.1 * (i + 1)},
                                  {"observed_duration_s", 60.0}});
    sql.insert("sessions", {{"id", "00000000-0000-4000-8000-00000000000" + std::to_string(i)},
                            {"start_time", kT0 - 9000 + i * 600.0},
                            {"end_time", kT0 - 8700 + i * 600.0}});
  }
  auto appsFor = [&](const char* arguments) {
    return payload(call("top_energy_apps", arguments)).find("apps")->arrayValue()->size();
  };
  EXPECT_EQ(appsFor(R"({"limit":"x"})"), 8u);
  EXPECT_EQ(appsFor(R"({"limit":3.7})"), 3u);
  EXPECT_EQ(appsFor(R"({"limit":-3})"), 1u);
  EXPECT_EQ(payload(call("list_sessions", R"({"limit":-3})")).member("count"), JSONValue(1));
  EXPECT_EQ(payload(call("list_sessions")).member("count"), JSONValue(10));

  // A "from" that is not a string is not given: the last hour.
  EXPECT_EQ(payload(call("query_power_history", R"({"from":5})")).member("from"),
            JSONValue("2027-01-15T07:00:00.000Z"));
}

TEST_F(ToolRegistryTest, ContentCarriesCompactTextThatReadsBack) {
  const JSONValue value = JSONValue::object({{"path", "/usr/lib/x"}, {"n", 1.5}});
  const JSONValue content = MCPToolRegistry::content(value);
  const std::string text = *(*content.find("content")->arrayValue())[0].find("text")->stringValue();
  EXPECT_EQ(text, R"({"n":1.5,"path":"/usr/lib/x"})") << "no escaped slashes, no white space";
  EXPECT_EQ(MCPToolRegistry::compactJSON(JSONValue(std::nan(""))), "{}");
}

}  // namespace
}  // namespace quorel
