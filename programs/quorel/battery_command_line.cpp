#include "battery_command_line.hpp"

#include <charconv>
#include <iostream>

#include "app/battery_command_socket.hpp"
#include "core/logging.hpp"

namespace quorel {
namespace {

constexpr const char* kJsonHelp = "Print the agent's answer as one JSON object";

CLI::App* switchCommand(CLI::App& battery, const char* name, const char* help, std::string& value,
                        bool& json) {
  auto* command = battery.add_subcommand(name, help);
  command->add_option("state", value, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
  command->add_flag("--json", json, kJsonHelp);
  return command;
}

}  // namespace

BatteryControlCommands::BatteryControlCommands(CLI::App& battery) {
  status_ = battery.add_subcommand(
      "status", "Charge limit, discharge, top-up and heat pause as the agent sees them now");
  status_->add_flag("--json", json_,
                    "Print one JSON object (availability, helper_ready, charge_limit, ...)");
  limit_ = battery.add_subcommand(
      "limit", "Hold the battery at a charge limit, or remove it (e.g. battery limit 80)");
  limit_->add_option("percent", limitValue_, "A whole percentage from 20 to 100, or off")
      ->required();
  limit_->add_flag("--json", json_, kJsonHelp);
  discharge_ = switchCommand(battery, "discharge",
                             "Run on battery while plugged in, down to the charge limit "
                             "(e.g. battery discharge on)",
                             switchValue_, json_);
  topUp_ = switchCommand(battery, "top-up",
                         "Charge to full once, then hold the limit again (e.g. battery top-up on)",
                         switchValue_, json_);
  heat_ =
      battery.add_subcommand("heat-protection",
                             "Pause charging above a temperature and resume a few degrees below "
                             "(e.g. battery heat-protection 40 3)");
  heat_
      ->add_option("degrees", heatValues_,
                   "The threshold (32 to 45 \u00b0C) and the hysteresis (1 to 10 \u00b0C)")
      ->required()
      ->expected(2);
  heat_->add_flag("--json", json_, kJsonHelp);
  automation_ = battery.add_subcommand(
      "automation", "Smart top-off rules, heat protection and the calendar and location access");
  automation_->add_flag("--json", json_, "Print one JSON object (smart_top_off_rules, ...)");
  rules_ = battery.add_subcommand("rules", "Replace or clear the smart top-off rules");
  rules_->require_subcommand(1);
  rulesSet_ = rules_->add_subcommand(
      "set",
      "Replace every rule with those in a JSON file (e.g. rules set rules.json, holding "
      "[{\"type\": \"calendar\", \"id\": \"<UUID>\", \"eventTitleSubstring\": \"Flight\", "
      "\"leadMinutes\": 60}]); a refused list changes nothing");
  rulesSet_->add_option("file", rulesFile_, "The JSON list of rules")->required();
  rulesSet_->add_flag("--json", json_, kJsonHelp);
  rulesClear_ = rules_->add_subcommand("clear", "Remove every smart top-off rule");
  rulesClear_->add_flag("--json", json_, kJsonHelp);
}

bool BatteryControlCommands::selected() const {
  for (const auto* command : {status_, limit_, discharge_, topUp_, heat_, automation_, rules_}) {
    if (command->parsed()) return true;
  }
  return false;
}

Result<BatteryCommandLine> BatteryControlCommands::commandLine() const {
  using Shows = BatteryCommandLine::Shows;
  BatteryCommandLine line;
  line.json = json_;
  const bool on = switchValue_ == "on";
  if (status_->parsed()) {
    line.method = "state";
  } else if (automation_->parsed()) {
    line.method = "automation";
    line.shows = Shows::automation;
  } else if (limit_->parsed()) {
    if (limitValue_ == "off") {
      line.method = "clearChargeLimit";
      line.confirmation = "Charge limit removed: the battery charges to full.";
    } else {
      std::int64_t percent = 0;
      const auto* end = limitValue_.data() + limitValue_.size();
      const auto [stop, ec] = std::from_chars(limitValue_.data(), end, percent);
      if (ec != std::errc() || stop != end) {
        return Error{
            "limit takes a whole percentage from 20 to 100, or off (e.g. battery limit "
            "80)."};
      }
      line.method = "setChargeLimit";
      line.params = JSONValue::object({{"percent", percent}});
      line.confirmation = "Charge limit set to " + limitValue_ + "%.";
    }
  } else if (discharge_->parsed()) {
    line.method = "setForceDischarge";
    line.params = JSONValue::object({{"enabled", on}});
    line.confirmation =
        on ? "Discharging on battery down to the charge limit." : "Discharge stopped.";
  } else if (topUp_->parsed()) {
    line.method = "setTopUp";
    line.params = JSONValue::object({{"enabled", on}});
    line.confirmation =
        on ? "Topping up to full once; the charge limit returns afterwards." : "Top-up cancelled.";
  } else if (heat_->parsed()) {
    line.method = "setHeatProtection";
    line.shows = Shows::automation;
    line.params = JSONValue::object(
        {{"threshold_c", heatValues_.at(0)}, {"hysteresis_c", heatValues_.at(1)}});
    line.confirmation = "Heat protection: charging pauses above " +
                        std::to_string(heatValues_.at(0)) + " \u00b0C and resumes " +
                        std::to_string(heatValues_.at(1)) + " \u00b0C below.";
  } else if (rulesSet_->parsed()) {
    auto fromFile = rulesFromFile(rulesFile_);
    if (!fromFile) return Error{fromFile.error().message + "."};
    fromFile->json = json_;
    return fromFile;
  } else if (rulesClear_->parsed()) {
    line.method = "setSmartTopOffRules";
    line.shows = Shows::automation;
    line.params = JSONValue::object({{"rules", JSONValue::Array{}}});
    line.confirmation = "Smart top-off rules cleared.";
  }
  return line;
}

int BatteryControlCommands::run(const CommandContext& context) const {
  logging::Options quiet;
  quiet.level = spdlog::level::warn;
  logging::configure(quiet);
  auto line = commandLine();
  if (!line) {
    std::cerr << "quorel: " << line.error().message << "\n";
    return kExitCommandRefused;
  }
  std::optional<QuorelPaths> paths;
  try {
    paths = QuorelPaths::resolve(ProcessEnvironment, context.dataDirectory);
  } catch (const std::exception& e) {
    std::cerr << "quorel: " << e.what() << "\n";
    return kExitCommandRefused;
  }
  return runBatteryCommandLine(*line, batteryCommandSocketPath(*paths), std::cout, std::cerr);
}

}  // namespace quorel
