#include "hxfleet.h"
#include "names.h"

#include <hxproxies/hxmemoryproxy.h>
#include <libmw/log.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

// How it stands with the fleet, and who is told.

namespace HX {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kRefused = 60s;  // For so long it is told after the last time that the hub said so.

}  // namespace

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

/// Whoever sees the state may ask at once, and is then not to get what was so before.
void HXFleet::lose(State state, const std::string& reason) {
  roster_->lose(reason);
  become(state, reason);
}

/// Of what we cannot do without; what follows another robot may lack its rights and be no worse for all the rest.
bool HXFleet::isOwn(std::string_view subject) const {
  const std::string bucket = subjects_->valueBucket();
  const std::string own[] = {subjects_->of(robot_, ""), subjects_->put(bucket, robot_ + "."),
                             fleet::FleetSubjects::stored(bucket, robot_ + "."), "_INBOX.", "$SRV."};
  return std::ranges::any_of(own, [&](const std::string& head) { return subject.starts_with(head); });
}

/// Rights that are taken away end no connection: the hub says so of each thing that it refuses, and when it is tried.
void HXFleet::noteRefusal(const std::string& text) {
  const auto begin = text.find('"') + 1;
  const std::string subject = text.substr(begin, text.find('"', begin) - begin);
  if (!isOwn(subject)) return;
  const std::string events = subjects_->event(robot_, "");
  try {
    if (subject.starts_with(events)) outgoing_->refused(fleet::toKey(subject.substr(events.size())));
  } catch (const std::exception&) {  // The name was too long for the text.
  }
  {
    const MutexLock lock(mutex_);
    refusal_ = text;
    refusedAt_ = Clock::now();
  }
  become(State::Refused, text);
  wake();
}

std::string HXFleet::refusal() {
  const MutexLock lock(mutex_);
  if (Clock::now() - refusedAt_ > kRefused) refusal_.clear();
  return refusal_;
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

}  // namespace HX
