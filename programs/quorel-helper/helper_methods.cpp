#include "helper_methods.hpp"

#include <unistd.h>

#include <array>
#include <cmath>

#include "core/enum_text.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable kMethodNames{std::array{
    std::pair{HelperMethod::ping, std::string_view{"ping"}},
    std::pair{HelperMethod::capabilities, std::string_view{"capabilities"}},
    std::pair{HelperMethod::setChargeLimit, std::string_view{"setChargeLimit"}},
    std::pair{HelperMethod::clearChargeLimit, std::string_view{"clearChargeLimit"}},
    std::pair{HelperMethod::forceDischarge, std::string_view{"forceDischarge"}},
    std::pair{HelperMethod::setClamshellKeepAwake, std::string_view{"setClamshellKeepAwake"}},
    std::pair{HelperMethod::releaseLimitUntilFullThenRestore,
              std::string_view{"releaseLimitUntilFullThenRestore"}},
    std::pair{HelperMethod::cancelTopUp, std::string_view{"cancelTopUp"}},
    std::pair{HelperMethod::getState, std::string_view{"getState"}},
    std::pair{HelperMethod::resetAll, std::string_view{"resetAll"}},
    std::pair{HelperMethod::quit, std::string_view{"quit"}},
    std::pair{HelperMethod::setSailingBand, std::string_view{"setSailingBand"}},
    std::pair{HelperMethod::readEnergyCounters, std::string_view{"readEnergyCounters"}},
}};

JSONRPCErrorObject invalidParams(std::string message) {
  return JSONRPCErrorObject{kJSONRPCInvalidParams, std::move(message), std::nullopt};
}

// A whole number parameter; anything else (text, a fraction, a huge figure) is absent.
std::optional<std::int64_t> integerParam(const JSONValue& params, std::string_view key) {
  const JSONValue* v = params.find(key);
  auto n = v ? v->numberValue() : std::nullopt;
  if (!n || std::trunc(*n) != *n || std::abs(*n) > 1e15) return std::nullopt;
  return static_cast<std::int64_t>(*n);
}

JSONValue energyCountersJSON(const std::vector<EnergyCounterValue>& counters) {
  JSONValue::Array out;
  for (const auto& c : counters) {
    out.push_back(JSONValue::object({{"zone", JSONValue(c.zone)},
                                     {"name", JSONValue(c.name)},
                                     {"energy_uj", JSONValue(c.energy_uJ)}}));
  }
  return JSONValue(std::move(out));
}

}  // namespace

std::optional<HelperMethod> helperMethodFromString(std::string_view name) {
  return kMethodNames.parse(name);
}

JSONRPCErrorObject helperErrorObject(const QuorelHelperError& error) {
  return JSONRPCErrorObject{static_cast<std::int64_t>(error.code), error.message,
                            JSONValue::object({{"domain", JSONValue(kQuorelHelperErrorDomain)}})};
}

JSONRPCResponse HelperMethods::handle(const JSONRPCRequest& request) {
  const auto& id = request.id;
  const auto method = helperMethodFromString(request.method);
  if (!method) {
    return JSONRPCResponse::failure(
        id, {kJSONRPCMethodNotFound, "Method not found: " + request.method, std::nullopt});
  }
  const JSONValue params = request.params.value_or(JSONValue(JSONValue::Object{}));
  if (!params.isObject()) {
    return JSONRPCResponse::failure(id, invalidParams("params must be an object"));
  }
  const auto outcome = [&](HelperOutcome result) {
    return result ? JSONRPCResponse::failure(id, helperErrorObject(*result))
                  : JSONRPCResponse::success(id, JSONValue(true));
  };
  switch (*method) {
    case HelperMethod::ping:
      return JSONRPCResponse::success(id, JSONValue(static_cast<std::int64_t>(::getpid())));
    case HelperMethod::capabilities:
      return JSONRPCResponse::success(id, controller_.capabilities().toJSON());
    case HelperMethod::getState:
      return JSONRPCResponse::success(id, controller_.state().toJSON());
    case HelperMethod::setChargeLimit: {
      auto percent = integerParam(params, "percent");
      if (!percent)
        return JSONRPCResponse::failure(id, invalidParams("percent must be an integer"));
      return outcome(controller_.setChargeLimit(*percent));
    }
    case HelperMethod::setSailingBand: {
      auto band = integerParam(params, "band");
      if (!band) return JSONRPCResponse::failure(id, invalidParams("band must be an integer"));
      return outcome(controller_.setSailingBand(*band));
    }
    case HelperMethod::forceDischarge:
    case HelperMethod::setClamshellKeepAwake: {
      const JSONValue* enable = params.find("enable");
      if (!enable || !enable->isBool()) {
        return JSONRPCResponse::failure(id, invalidParams("enable must be true or false"));
      }
      return outcome(*method == HelperMethod::forceDischarge
                         ? controller_.forceDischarge(*enable->boolValue())
                         : controller_.setClamshellKeepAwake(*enable->boolValue()));
    }
    case HelperMethod::clearChargeLimit:
      return outcome(controller_.clearChargeLimit());
    case HelperMethod::releaseLimitUntilFullThenRestore:
      return outcome(controller_.releaseLimitUntilFullThenRestore());
    case HelperMethod::cancelTopUp:
      return outcome(controller_.cancelTopUp());
    case HelperMethod::resetAll:
      return outcome(controller_.resetAll());
    case HelperMethod::quit:
      // The server closes the listener once this answer is out.
      return JSONRPCResponse::success(id, JSONValue(true));
    case HelperMethod::readEnergyCounters: {
      auto counters = controller_.readEnergyCounters();
      if (!counters) {
        return JSONRPCResponse::failure(
            id, helperErrorObject(
                    {QuorelHelperErrorCode::codeUnsupportedCapability,
                     "The energy counters could not be read (" + counters.error().message + ")."}));
      }
      return JSONRPCResponse::success(id, energyCountersJSON(*counters));
    }
  }
  return JSONRPCResponse::failure(id, {kJSONRPCInternalError, "unhandled method", std::nullopt});
}

}  // namespace quorel
