#include "mirror.h"

#include "farservice.h"
#include "hub.h"
#include "payload.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>
#include <hxvalue/json.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;

const char* const kFollowing = "hxfleet";  // Category of the log.
constexpr std::size_t kMostTasks = 20'000;
constexpr auto kPatience = 2s;
constexpr auto kPatienceForKeys = 10s;
constexpr auto kReadGap = 1s;  // Between attempts to read the last values.

}  // namespace

Mirror::Mirror(HXModule& module, FleetSubjects subjects, const std::vector<std::string>& robots)
    : module_(module), subjects_(std::move(subjects)), robots_(robots.begin(), robots.end()) {}

Mirror::~Mirror() { end(); }

void Mirror::follow(const std::string& robot) {
  const MutexLock lock(mutex_);
  robots_.insert(robot);
}

void Mirror::unfollow(const std::string& robot) {
  const MutexLock lock(mutex_);
  robots_.erase(robot);
}

std::set<std::string> Mirror::followed() const {
  const MutexLock lock(mutex_);
  return robots_;
}

void Mirror::listen(const std::shared_ptr<Connection>& connection) {
  const auto wanted = followed();
  std::vector<std::string> gone;
  for (const auto& [robot, followed] : listening_) {
    if (!wanted.contains(robot)) gone.push_back(robot);
  }
  for (const std::string& robot : gone) end(connection, robot);
  for (const std::string& robot : wanted) {
    const auto known = listening_.find(robot);
    if (known == listening_.end()) {
      begin(connection, robot);
    } else if (!known->second.hasValues && std::chrono::steady_clock::now() >= known->second.nextTry) {
      readValues(*connection, robot, known->second);
    }
  }
}

void Mirror::begin(const std::shared_ptr<Connection>& connection, const std::string& robot) {
  Followed& followed = listening_[robot];
  auto& subscriptions = followed.subscriptions;
  subscriptions.push_back(connection->subscribe(subjects_.event(robot, ">"), [this, robot](const Message& message) {
    post([this, robot, payload = std::string(message.data())] { onEvent(robot, payload); });
  }));
  const std::string bucket = subjects_.valueBucket();
  const std::size_t head = FleetSubjects::stored(bucket, robot + ".").size();
  subscriptions.push_back(
      connection->subscribe(FleetSubjects::stored(bucket, robot + ".>"), [this, robot, head](const Message& message) {
        const bool isRemoved = !message.header("KV-Operation").empty();
        post([this, robot, key = std::string(message.subject().substr(head)), payload = std::string(message.data()),
              isRemoved] { onValue(robot, key, payload, isRemoved, false); });
      }));
  readValues(*connection, robot, followed);
  refreshRobot(connection, robot);
}

/// A cluster that is choosing a leader, say, has them only a little later.
void Mirror::readValues(Connection& connection, const std::string& robot, Followed& followed) {
  try {
    for (Entry& entry : readKeys(connection, subjects_, subjects_.valueBucket(), robot + ".>", kPatienceForKeys)) {
      post([this, robot, key = entry.key.substr(robot.size() + 1), payload = std::move(entry.data)] {
        onValue(robot, key, payload, false, true);
      });
    }
    followed.hasValues = true;
  } catch (const std::exception& error) {
    if (followed.nextTry == std::chrono::steady_clock::time_point()) {
      mw::log::warning(kFollowing, "follow",
                       fmt::format("the last values of {} are not there: {}; it is tried again", robot, error.what()));
    }
    followed.nextTry = std::chrono::steady_clock::now() + kReadGap;
  }
}

void Mirror::end(const std::shared_ptr<Connection>& connection, const std::string& robot) {
  for (const auto subscription : listening_.at(robot).subscriptions) connection->unsubscribe(subscription);
  listening_.erase(robot);
  withdrawAll(robot + "/");
  // Behind what arrived of it before.
  post([this, robot] { forget(robot); });
}

/// Takes what a robot brought in out of the memory.
void Mirror::forget(const std::string& robot) {
  auto memory = module_.memory();
  for (const std::string& key : memory.getDataListName()) {
    if (!key.starts_with(robot + "/")) continue;
    const std::string kind = memory.getType(key);
    if (kind == "Event") {
      memory.removeEvent(key);
    } else if (kind == "MicroEvent") {
      memory.removeMicroEvent(key);
    } else {
      memory.removeData(key);
    }
  }
}

void Mirror::post(Task task) {
  MutexLock lock(mutex_);
  if (ended_) return;
  const bool isTooMuch = tasks_.size() >= kMostTasks;
  const bool isFirstLost = isTooMuch && lost_++ == 0;
  if (isTooMuch) tasks_.pop_front();
  tasks_.push_back(std::move(task));
  if (!isRunning_) {
    const auto broker = module_.findParentBroker();
    isRunning_ = broker && broker->session()->eventLoop().post([this] { run(); });
  }
  lock.unlock();
  // Sinks are foreign. No member is touched any more: this may have ended by now.
  if (isFirstLost) mw::log::warning(kFollowing, "follow", "more comes from other robots than the memory takes");
}

void Mirror::run() {
  MutexLock lock(mutex_);
  while (!tasks_.empty()) {
    const Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    try {
      task();
    } catch (const std::exception& error) {
      mw::log::verbose(kFollowing, "follow", error.what());
    }
    lock.lock();
  }
  isRunning_ = false;
  changed_.notify_all();
}

void Mirror::end() {
  {
    MutexLock lock(mutex_);
    ended_ = true;
    tasks_.clear();
    changed_.wait(lock.native(), [&]() HX_REQUIRES(mutex_) { return !isRunning_; });
  }
  lose();
}

void Mirror::onEvent(const std::string& robot, const std::string& payload) {
  const Record record = toRecord(payload);
  const std::string key = robot + "/" + record.key;
  auto memory = module_.memory();
  if (record.kind == "MicroEvent") {
    memory.raiseMicroEvent(key, record.value);
  } else {
    memory.raiseEvent(key, record.value);
  }
}

void Mirror::onValue(const std::string& robot, const std::string& key, const std::string& payload, bool isRemoved,
                     bool isFirst) {
  auto memory = module_.memory();
  if (isRemoved) return memory.removeData(robot + "/" + toKey(key));
  const Record record = toRecord(payload);
  auto& newest = newest_[robot + "/" + record.key];
  // What is read when we come may have been overtaken by what is heard meanwhile.
  if (isFirst && record.time < newest) return;
  newest = std::max(newest, record.time);
  // An event is raised when it is told as such; what it was before we came is no event now.
  if (record.kind == "Data" || isFirst) memory.insertData(robot + "/" + record.key, record.value);
}

void Mirror::refresh(const std::shared_ptr<Connection>& connection) {
  for (const auto& [robot, followed] : listening_) refreshRobot(connection, robot);
}

void Mirror::refreshRobot(const std::shared_ptr<Connection>& connection, const std::string& robot) {
  std::map<std::string, std::vector<std::string>> found;
  try {
    const HXValue described = askRobot(*connection, subjects_.of(robot, "describe"), "", kPatience);
    for (const auto& [service, methods] : described.asMap()) {
      for (const HXValue& method : methods.asList()) found[service].push_back(method.asString());
    }
  } catch (const std::exception& error) {  // It is off: it has no services.
    mw::log::verbose(kFollowing, "follow", fmt::format("{}: {}", robot, error.what()));
  }
  const std::string head = robot + "/";
  std::vector<std::string> gone;
  for (const auto& [name, id] : services_) {
    if (!name.starts_with(head)) continue;
    const auto still = found.find(name.substr(head.size()));
    if (still == found.end() || still->second != methods_[name]) gone.push_back(name);
  }
  for (const std::string& name : gone) withdraw(name);
  const auto session = module_.getParentBroker()->session();
  for (auto& [service, methods] : found) {
    const std::string name = head + service;
    // What that robot has of others is theirs to offer; and what is here already stays.
    if (service.find('/') != std::string::npos || services_.contains(name)) continue;
    const std::string subject = subjects_.of(robot, "call.") + toToken(service);
    try {
      services_[name] = session->registerService(
          name, mw::AnyObject(std::make_shared<FarService>(connection, name, subject, methods)));
      methods_[name] = std::move(methods);
    } catch (const std::exception& error) {
      services_.erase(name);
      mw::log::warning(kFollowing, "follow", error.what());
    }
  }
}

void Mirror::withdraw(const std::string& service) {
  const auto broker = module_.findParentBroker();
  if (broker) broker->session()->unregisterService(services_.at(service));
  services_.erase(service);
  methods_.erase(service);
}

void Mirror::withdrawAll(const std::string& head) {
  std::vector<std::string> gone;
  for (const auto& [name, id] : services_) {
    if (name.starts_with(head)) gone.push_back(name);
  }
  for (const std::string& name : gone) withdraw(name);
}

void Mirror::lose() {
  listening_.clear();
  withdrawAll("");
}

}  // namespace HX::fleet
