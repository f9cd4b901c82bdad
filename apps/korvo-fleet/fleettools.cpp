#include "fleettools.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo::fleet {
namespace {

using namespace HX::fleet;
using HX::HXValue;
using namespace std::chrono_literals;

/// Answers for one tool must not reach another one.
std::string ownInbox() { return fmt::format("_INBOX.tool{:x}{:x}", ::getpid(), std::random_device{}()); }

}  // namespace

Access accessOf(const FleetOptions& options) {
  Access access{{}, options.authority, options.seed, options.insecure};
  for (std::size_t begin = 0; begin <= options.hub.size();) {
    const std::size_t end = std::min(options.hub.find(',', begin), options.hub.size());
    if (end > begin) access.servers.push_back(options.hub.substr(begin, end - begin));
    begin = end + 1;
  }
  try {
    check(access);
  } catch (const std::exception& error) {
    throw UsageError(error.what());
  }
  return access;
}

FleetView::FleetView(const FleetOptions& options)
    : patience_(options.seconds > 0 ? options.patience() : std::chrono::milliseconds(24h)),
      subjects_(options.fleet, options.domain),
      connection_(
          std::make_unique<Connection>(accessOf(options), Connection::Options{"korvo fleet", ownInbox(), true, {}})) {}

HXValue FleetView::ask(const std::string& robot, const std::string& what, const std::string& data) {
  try {
    return askRobot(*connection_, subjects_.of(robot, what), data, patience_);
  } catch (const NobodyError&) {
    throw NobodyError(fmt::format("robot {} is not there", robot));
  }
}

std::optional<Record> FleetView::stored(const std::string& robot, const std::string& key) {
  const auto entry =
      readKey(*connection_, subjects_, subjects_.valueBucket(), fmt::format("{}.{}", robot, toSubject(key)));
  if (!entry || entry->isRemoved) return std::nullopt;
  return toRecord(entry->data);
}

std::vector<std::pair<std::string, std::chrono::nanoseconds>> FleetView::present(std::chrono::milliseconds wait) {
  struct Answers {
    std::mutex mutex;  // Guards `robots`.
    std::vector<std::pair<std::string, std::chrono::nanoseconds>> robots;
  };
  const auto answers = std::make_shared<Answers>();
  const auto begin = std::chrono::steady_clock::now();
  const std::string reply = fmt::format("{}.present{}", connection_->inbox(), begin.time_since_epoch().count());
  const Listening listening(*connection_, reply, [answers, begin](const Message& message) {
    if (message.data().empty()) return;
    try {
      const HXValue answer = HX::fromJson(message.data());
      const std::lock_guard lock(answers->mutex);
      answers->robots.emplace_back(answer["id"].asString(), std::chrono::steady_clock::now() - begin);
    } catch (const std::exception&) {  // Some other service.
    }
  });
  connection_->publish({"$SRV.PING.korvo", {}, reply});
  std::this_thread::sleep_for(wait);
  const std::lock_guard lock(answers->mutex);
  return answers->robots;
}

std::vector<Status> FleetView::statuses() {
  std::vector<Status> all;
  for (const Entry& entry : readKeys(*connection_, subjects_, subjects_.statusBucket(), ">", patience_)) {
    all.push_back(toStatus(entry.data));
  }
  return all;
}

void FleetView::want(const std::string& robot, const std::string& key, const HXValue& value) {
  constexpr int kAttempts = 20;
  const std::string bucket = subjects_.desiredBucket();
  for (int i = 0; i < kAttempts; ++i) {
    const auto known = readKey(*connection_, subjects_, bucket, robot);
    HXValue wanted = known && !known->isRemoved ? HX::fromJson(known->data) : HXValue::map();
    wanted.mapSet(key, value);
    const auto answer =
        writeKey(*connection_, subjects_, bucket, robot, HX::toJson(wanted), known ? known->sequence : 0);
    if (answer.isStored()) {
      connection_->publish(subjects_.of(robot, "desired"), "");
      connection_->flush(patience_);
      return;
    }
    // Somebody else was first: theirs stays, beside ours.
    if (!answer.last) throw std::runtime_error(answer.text);
  }
  throw std::runtime_error(fmt::format("what {} is to have is changed by others all the time", robot));
}

std::pair<std::string, std::string> toRobotAndRest(std::string_view text) {
  const auto slash = text.find('/');
  const std::string robot(text.substr(0, slash));
  if (slash == std::string_view::npos || !isName(robot)) {
    throw UsageError(fmt::format("{} names no robot and what is there: write ROBOT/…", text));
  }
  return {robot, std::string(text.substr(slash + 1))};
}

}  // namespace korvo::fleet
