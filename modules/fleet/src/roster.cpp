#include "roster.h"

#include "hub.h"

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 3s;
constexpr auto kForgotten = 30s;  // Nobody has asked for so long.
constexpr auto kSilent = 7s;      // A robot tells its status each two seconds.
constexpr auto kRound = 2500ms;   // So that each has told it once.

}  // namespace

Roster::Roster(FleetSubjects subjects) : subjects_(std::move(subjects)) {}

void Roster::Heard::note(Status status, Clock::time_point when) {
  const MutexLock lock(mutex);
  Robot& robot = robots[status.robot];
  if (when < robot.heard) return;  // What is stored is older than what is heard.
  if (status.host.empty()) {       // As it was told before.
    status.host = robot.status.host;
    status.version = robot.status.version;
    status.since = robot.status.since;
  }
  robot = {std::move(status), when};
}

HXValue Roster::robots() {
  {
    MutexLock lock(mutex_);
    if (!lost_.empty()) throw std::runtime_error("there is no connection to the fleet: " + lost_);
    asked_ = Clock::now();
    failure_.clear();
    changed_.wait_for(lock.native(), kPatience,
                      [&]() HX_REQUIRES(mutex_) { return isReady_ || !failure_.empty() || !lost_.empty(); });
    if (!isReady_) throw std::runtime_error(failure_.empty() ? "the hub cannot be asked for its robots" : failure_);
    // Until then who is there seems to be off.
    changed_.wait_until(lock.native(), roundUntil_, [&]() HX_REQUIRES(mutex_) { return !lost_.empty(); });
  }
  const auto now = Clock::now();
  const auto number = [](std::uint64_t count) { return static_cast<std::int64_t>(count); };
  HXValue rows = HXValue::list();
  const MutexLock lock(heard_->mutex);
  for (const auto& [name, robot] : heard_->robots) {
    const Status& status = robot.status;
    const bool isHeard = robot.heard != Clock::time_point() && now - robot.heard < kSilent;
    rows.arrayPush(HXValue::map({{"robot", name},
                                 {"state", isHeard ? "online" : "off"},
                                 {"seen", toText(status.time)},
                                 {"host", status.host},
                                 {"version", status.version},
                                 {"raised", number(status.raised)},
                                 {"confirmed", number(status.confirmed)},
                                 {"queued", number(status.queued)},
                                 {"dropped", number(status.dropped)},
                                 {"missed", number(status.missed)},
                                 {"keys", number(status.keys)}}));
  }
  return rows;
}

void Roster::listen(const std::shared_ptr<Connection>& connection) {
  const bool isListening = connection_.lock() == connection;
  bool isAsked = false;
  {
    const MutexLock lock(mutex_);
    lost_.clear();
    isAsked = asked_ != Clock::time_point() && Clock::now() - asked_ < kForgotten;
    if (!isAsked) isReady_ = false;
  }
  if (isAsked && !isListening) {
    std::string failure;
    try {
      begin(*connection);
      connection_ = connection;
    } catch (const std::exception& error) {
      failure = error.what();
    }
    const MutexLock lock(mutex_);
    isReady_ = failure.empty();
    roundUntil_ = Clock::now() + kRound;
    if (!isReady_) asked_ = {};  // It is tried again when it is asked for again.
    failure_ = std::move(failure);
    changed_.notify_all();
  } else if (!isAsked && isListening) {
    connection->unsubscribe(subscription_);
    connection_.reset();
  }
}

void Roster::begin(Connection& connection) {
  for (const Entry& entry : readKeys(connection, subjects_, subjects_.statusBucket(), "*", kPatience)) {
    try {
      heard_->note(toStatus(entry.data), {});
    } catch (const std::exception&) {  // Of somebody who writes otherwise.
    }
  }
  subscription_ = connection.subscribe(subjects_.of("*", "status"), [heard = heard_](const Message& message) {
    try {
      heard->note(toStatus(message.data()), Clock::now());
    } catch (const std::exception&) {  // As above.
    }
  });
}

void Roster::lose(const std::string& why) {
  const MutexLock lock(mutex_);
  isReady_ = false;
  lost_ = why;
  changed_.notify_all();
}

}  // namespace HX::fleet
