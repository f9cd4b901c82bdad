#include "hxfleet.h"

#include <utility>

#include <fmt/format.h>

// What others may call.

namespace HX {

void HXFleet::bindMethods() {
  functionName("status", getName(), "Says how this robot stands with its fleet, and accounts for what it raised.");
  setReturn("status",
            "{state: connected, cut, away, refused or left, reason, robot, fleet, server, raised, confirmed, queued, "
            "inFlight, dropped, missed, keys, turnedAway, desired, follows}");
  bindMethod(this, &HXFleet::status);
  functionName("robots", getName(), "Lists the robots of the fleet, as each told last.");
  setReturn("robots",
            "A list, by names, of {robot, state: online or off, seen, host, version, raised, confirmed, queued, "
            "dropped, missed, keys}");
  bindMethod(this, &HXFleet::robots);
  functionName("follow", getName(), "Brings another robot's keys, events and services in, under its name.");
  addParam("robot", "Which one.");
  bindMethod(this, &HXFleet::follow);
  functionName("unfollow", getName(), "Ends what follow began, and takes what it brought in out again.");
  addParam("robot", "Which one.");
  bindMethod(this, &HXFleet::unfollow);
  functionName("leave", getName(), "Stays away from the fleet until join.");
  bindMethod(this, &HXFleet::leave);
  functionName("join", getName(), "Ends what leave began.");
  bindMethod(this, &HXFleet::join);
}

const char* HXFleet::nameOf(State state) {
  constexpr const char* kStates[] = {"away", "connected", "cut", "refused", "left"};
  return kStates[static_cast<int>(state)];
}

HXValue HXFleet::status() {
  const fleet::Account account = outgoing_->account();
  const auto number = [](std::uint64_t count) { return static_cast<std::int64_t>(count); };
  const auto mirrored = number(outgoing_->mirrored());
  const auto followed = mirror_->followed();
  const std::vector<std::string> follows(followed.begin(), followed.end());
  const auto turnedAway = number(outgoing_->turnedAway());
  const MutexLock lock(mutex_);
  return HXValue::map({{"state", nameOf(state_)},
                       {"reason", reason_},
                       {"robot", robot_},
                       {"fleet", subjects_->fleet()},
                       {"server", server_},
                       {"raised", number(account.raised)},
                       {"confirmed", number(account.confirmed)},
                       {"queued", number(account.queued)},
                       {"inFlight", number(account.inFlight)},
                       {"dropped", number(account.dropped)},
                       {"missed", number(account.missed)},
                       {"keys", mirrored},
                       {"turnedAway", turnedAway},
                       {"desired", number(desiredRevision_)},
                       {"follows", HXValue(follows)}});
}

HXValue HXFleet::robots() { return roster_->robots(); }

void HXFleet::follow(const std::string& robot) {
  if (!fleet::isName(robot)) {
    throw HXError(getName(), "follow", fmt::format("\"{}\" is no name of a robot", robot));
  }
  if (robot == robot_) throw HXError(getName(), "follow", "a robot cannot follow itself");
  // First, so that nothing that comes in goes out again.
  outgoing_->addOther(robot);
  mirror_->follow(robot);
  wake();
}

void HXFleet::unfollow(const std::string& robot) {
  if (!mirror_->followed().contains(robot)) {
    throw HXError(getName(), "unfollow", fmt::format("{} is not followed", robot));
  }
  mirror_->unfollow(robot);
  wake();
}

void HXFleet::leave() {
  {
    const MutexLock lock(mutex_);
    isLeft_ = true;
  }
  wake();
}

void HXFleet::join() {
  {
    const MutexLock lock(mutex_);
    isLeft_ = false;
  }
  wake();
}

void HXFleet::wake() {
  const MutexLock lock(mutex_);
  isWoken_ = true;
  woken_.notify_all();
}

}  // namespace HX
