#include "hxfleet.h"

#include <hxproxies/hxmemoryproxy.h>
#include <libmw/log.h>

#include <utility>

#include <fmt/format.h>

// How it stands with the fleet, and who is told.

namespace HX {
namespace {}  // namespace

/// One line for each change of state.
void HXFleet::become(State state, const std::string& reason) {
  {
    const MutexLock lock(mutex_);
    reason_ = reason;
    if (std::exchange(told_, state) == state) return;
    state_ = state;
  }
  if (state == State::Connected) {
    mw::log::info(kCategory, "state", fmt::format("robot {} is connected to {}", robot_, reason));
  } else {
    mw::log::warning(kCategory, "state",
                     fmt::format("robot {} is {}: {}{}", robot_, nameOf(state), reason,
                                 state == State::Left ? "" : "; it is tried again"));
  }
}

/// What people on the robot see.
void HXFleet::showState() {
  const fleet::Account account = outgoing_->account();
  bool isConnected = false;
  {
    const MutexLock lock(mutex_);
    isConnected = state_ == State::Connected;
  }
  try {
    auto memory = this->memory();
    const auto show = [&](const char* key, const HXValue& value) {
      HXValue& last = shown_[key];
      if (last == value) return;
      last = value;
      memory.insertData(key, value);
    };
    show("HXFleet/Connected", isConnected);
    show("HXFleet/Queued", static_cast<std::int64_t>(account.queued + account.inFlight));
    show("HXFleet/Dropped", static_cast<std::int64_t>(account.dropped));
  } catch (const std::exception&) {  // The memory has gone, in another process.
    shown_.clear();
  }
}

fleet::Status HXFleet::presentStatus() {
  const fleet::Account account = outgoing_->account();
  fleet::Status status;
  status.robot = robot_;
  status.run = outgoing_->run();
  status.host = host_;
  status.version = KORVO_VERSION;
  status.since = since_;
  status.raised = account.raised;
  status.confirmed = account.confirmed;
  status.queued = account.queued + account.inFlight;
  status.dropped = account.dropped;
  status.missed = account.missed;
  status.keys = outgoing_->mirrored();
  status.turnedAway = outgoing_->turnedAway();
  status.desired = desiredRevision_;
  status.time = mw::systemNow();
  return status;
}

std::string HXFleet::presentReason() {
  const MutexLock lock(mutex_);
  return reason_;
}

}  // namespace HX
