#include "hxfleet.h"
#include "session.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

// Whether the line is there, and the name ours.

namespace HX {
namespace {

using namespace std::chrono_literals;
using fleet::Letter;
using Clock = std::chrono::steady_clock;

constexpr auto kFirstPause = 100ms;
constexpr auto kLongestPause = 10'000ms;
constexpr auto kLook = 500ms;  // Between two looks at whether the line is cut; after a shorter cut TCP is as quick.
constexpr auto kKnockGap = 250ms;
constexpr auto kAskName = 500ms;

}  // namespace

/// Until the next attempt is due, and a server answers: an attempt at one that is silent would take long to end.
void HXFleet::awaitServer(const std::stop_token& stop) {
  answered_.clear();
  pause(untilNextAttempt(), stop);
  const auto isEnough = [&] { return stop.stop_requested() || hasLeft(); };
  while (!isEnough()) {
    if (knocking_.isStale()) knocking_.resolve(access_.servers);
    knocking_.knock();
    const auto answered = knocking_.await(untilNextAttempt(), isEnough);
    if (!answered) continue;
    answered_ = *answered;
    break;
  }
  knocking_.forget();
}

/// A line that was cut and is back goes unnoticed for as long again as it was cut, since TCP asks ever more seldom. So
/// somebody knocks while it does, and at an answer the connections begin anew.
void HXFleet::watchLine(Session& session, const std::stop_token& stop) {
  std::mutex mutex;  // Guards nothing: what is waited for is the end.
  std::condition_variable_any never;
  const auto isStalled = [&] { return session.control->isStalled() || session.bulk->isStalled(); };
  while (!stop.stop_requested()) {
    if (!isStalled()) {
      knocking_.forget();
      std::unique_lock lock(mutex);
      never.wait_for(lock, stop, kLook, [] { return false; });
      continue;
    }
    knocking_.knock();
    if (!knocking_.await(kKnockGap, [&] { return stop.stop_requested(); }) || !isStalled()) continue;
    session.control->close();
    session.bulk->close();
    return;
  }
}

/// A twentieth of how long we have been away, spread by half: after a short cut we are soon back, and after a long one
/// all the robots of a fleet do not come at the same moment.
std::chrono::milliseconds HXFleet::untilNextAttempt() {
  const auto away = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - served_);
  const auto jitter = std::uniform_real_distribution<>(0.5, 1.5)(random_);
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      jitter * std::clamp<std::chrono::milliseconds>(away / 20, kFirstPause, kLongestPause));
}

/// Two robots of one name would share its requests at random.
void HXFleet::requireOwnName(fleet::Connection& connection) {
  try {
    const auto answer = connection.request({fmt::format("$SRV.PING.korvo.{}", robot_), ""}, kAskName);
    const HXValue other = fromJson(answer.data())["metadata"];
    if (other["run"].asString() == outgoing_->run()) return;
    throw fleet::RefusedError(fmt::format("there is a robot {} already, on host {}", robot_, other["host"].asString()));
  } catch (const fleet::NobodyError&) {
  } catch (const fleet::AwayError&) {  // It does not answer, so it does not count.
  }
}

/// Of two that asked at the same time, and found nobody, the one that started later goes. Who has lost the connection
/// and comes back does not wait for an answer, which may well be owed by that very connection; another that has come
/// meanwhile answers soon, and stays.
void HXFleet::watchName(const std::shared_ptr<Session>& session) {
  const std::string reply = session->control->inbox() + ".name";
  const auto others = holdsName_ ? Clock::now() + kAskName : Clock::time_point();
  session->control->subscribe(reply, [this, heard = session->heard, robot = robot_, run = outgoing_->run(),
                                      since = fleet::toText(since_), others](const fleet::Message& message) {
    if (heard->isTaken || message.data().empty()) return;
    try {
      const HXValue other = fromJson(message.data())["metadata"];
      const std::string otherRun = other["run"].asString();
      const bool isLater = std::pair(other["since"].asString(), otherRun) > std::pair(since, run);
      if (otherRun == run || (isLater && Clock::now() > others)) return;
      heard->holder = fmt::format("there is a robot {} already, on host {}", robot, other["host"].asString());
      heard->isTaken = true;
      wake();
    } catch (const std::exception&) {  // No answer of ours.
    }
  });
  session->control->publish(Letter{fmt::format("$SRV.PING.korvo.{}", robot_), "", reply});
}

}  // namespace HX
