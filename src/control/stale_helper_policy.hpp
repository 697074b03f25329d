#pragma once
// What to do about a helper older than the version floor: ask it to quit so that the installed
// binary comes back in its place, then start over with a fresh connection, then give up and say
// what to run. Pure: the manager keeps the two attempt flags and carries the action out.

namespace quorel {

enum class StaleHelperPhase { none, restarting, resetting, failed };

struct StaleHelperPolicy {
  enum class Action { clear, restart, reset, giveUp };

  static constexpr Action next(bool outdated, bool restartAttempted, bool resetAttempted) {
    if (!outdated) return Action::clear;
    if (!restartAttempted) return Action::restart;
    return resetAttempted ? Action::giveUp : Action::reset;
  }
};

}  // namespace quorel
