#include "hxfreshness.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/units.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

const char* const kCategory = "hxfreshness";
const char* const kOverdue = "HXFreshness/Overdue";
const char* const kRecovered = "HXFreshness/Recovered";

class DefaultLoop : public journal::Executor {
 public:
  bool post(std::function<void()> task, std::chrono::nanoseconds delay) override {
    return mw::defaultLoop().post(std::move(task), delay);
  }
  std::chrono::steady_clock::time_point now() const noexcept override { return std::chrono::steady_clock::now(); }
};

HXValue seconds(Expectations::Duration duration) { return std::chrono::duration<double>(duration).count(); }

HXValue::List tripleOf(const Expectations::Standing& standing) {
  return {standing.key, seconds(standing.age), seconds(standing.limit)};
}

/// @throws HXError when there can be no such expectation.
Expectations::Duration requireLimit(const std::string& key, double limit) {
  constexpr double kLongest = 1e9;  // Some thirty years.
  if (key.starts_with("HXFreshness/")) {
    throw HXError("HXFreshness", "expect", key + " is raised by HXFreshness itself");
  }
  const bool isLimit = limit >= 1e-9 && limit <= kLongest;
  if (!isLimit) {
    throw HXError("HXFreshness", "expect",
                  fmt::format("{} s is no limit for {}: it is above 0 s, up to {} s", limit, key, kLongest));
  }
  return std::chrono::duration_cast<Expectations::Duration>(std::chrono::duration<double>(limit));
}

bool isWrite(const journal::Change& change) {
  using journal::What;
  // A key that was made and never written has a state without a value.
  if (change.isState) return change.value.isValid();
  return change.what == What::Stored || change.what == What::Raised || change.what == What::RaisedMicro;
}

}  // namespace

HXFreshness::HXFreshness(const std::shared_ptr<HXBroker>& broker, const std::string& name)
    : HXFreshness(broker, name, std::make_shared<DefaultLoop>()) {}

HXFreshness::HXFreshness(const std::shared_ptr<HXBroker>& broker, const std::string& name,
                         std::shared_ptr<journal::Executor> loop)
    : HXModule(broker, name), loop_(std::move(loop)) {
  setModuleDescription(
      "HXFreshness tells when keys are not written in time: it raises HXFreshness/Overdue and HXFreshness/Recovered.");
  addSetting(
      Setting::map("expect", {}, "What is expected from the start: by key, its limit as a text like \"200ms\"."));
  bindMethods();
}

HXFreshness::~HXFreshness() { lifetime_.destroy(); }

void HXFreshness::init() {
  std::map<std::string, double> limits;
  for (const auto& [key, limit] : settings()["expect"].asMap()) {
    limits.emplace(key, seconds(toDuration(limit)).toDouble());
  }
  if (!limits.empty()) expectAll(limits);
}

void HXFreshness::bindMethods() {
  functionName("expect", getName(), "Expects a key to be written again and again; anew to change its limit.");
  addParam("key", "A key of the memory, whether it is there already or not.");
  addParam("limit", "The longest time between two writes, in seconds.");
  bindMethod(this, &HXFreshness::expect);

  functionName("expectAll", getName(), "Expects several keys, or none when one of them is refused.");
  addParam("limits", "The limit of each key, in seconds.");
  bindMethod(this, &HXFreshness::expectAll);

  functionName("forget", getName(), "Expects a key no longer.");
  addParam("key", "The key.");
  setReturn("expected", "False when it was not expected.");
  bindMethod(this, &HXFreshness::forget);

  functionName("expectations", getName(), "Lists what is expected.");
  setReturn("expectations", "[key, seconds since it was written, limit in seconds, whether it is overdue] of each");
  bindMethod(this, &HXFreshness::expectations);

  functionName("overdue", getName(), "Lists the keys that were not written in time.");
  setReturn("overdue", "[key, seconds since it was written, limit in seconds] of each");
  bindMethod(this, &HXFreshness::overdue);
}

void HXFreshness::exit() {
  {
    const std::lock_guard follow(followMutex_);
    {
      const std::lock_guard lock(mutex_);
      hasLeft_ = true;
      news_.clear();
    }
    follow_.end();
  }
  HXModule::exit();
}

void HXFreshness::expect(const std::string& key, double limit) { expectAll({{key, limit}}); }

void HXFreshness::expectAll(const std::map<std::string, double>& limits) {
  std::map<std::string, Expectations::Duration> all;
  for (const auto& [key, limit] : limits) all.emplace(key, requireLimit(key, limit));
  const std::lock_guard follow(followMutex_);
  std::set<std::string> keys = expectedKeys();
  for (const auto& [key, limit] : all) keys.insert(key);
  followOnly(keys);
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [key, limit] : all) note(kRecovered, expectations_.expect(key, limit, loop_->now()));
  }
  // What was written before, and what the follower told of before it was expected.
  for (const auto& [key, limit] : all) look(key);
  const std::lock_guard lock(mutex_);
  arm();
}

bool HXFreshness::forget(const std::string& key) {
  const std::lock_guard follow(followMutex_);
  std::set<std::string> keys = expectedKeys();
  if (keys.erase(key) == 0) return false;
  followOnly(keys);
  const std::lock_guard lock(mutex_);
  return expectations_.forget(key);
}

std::set<std::string> HXFreshness::expectedKeys() {
  const std::lock_guard lock(mutex_);
  const auto keys = expectations_.keys();
  return {keys.begin(), keys.end()};
}

/// A follower has the filter that it was made with.
void HXFreshness::followOnly(const std::set<std::string>& keys) {
  if (hasLeft_ || keys.empty()) return follow_.end();
  journal::Filter filter;
  for (const std::string& key : keys) filter.addKey(key);
  journal::FollowOptions options;
  options.snapshot = false;
  // Writers are not to pay for its being awake: what it hears 20 ms late is asked of the memory where it matters.
  options.promptness = journal::Promptness::Relaxed;
  follow_ = HXModule::follow(
      std::move(filter), [this](const journal::Change& change) { onChange(change); }, std::move(options));
}

HXValue HXFreshness::expectations() {
  const std::lock_guard lock(mutex_);
  HXValue::List list;
  for (const auto& standing : expectations_.all(loop_->now())) {
    HXValue::List one = tripleOf(standing);
    one.emplace_back(standing.isOverdue);
    list.emplace_back(std::move(one));
  }
  return list;
}

HXValue HXFreshness::overdue() {
  const std::lock_guard lock(mutex_);
  HXValue::List list;
  for (const auto& standing : expectations_.all(loop_->now())) {
    if (standing.isOverdue) list.emplace_back(tripleOf(standing));
  }
  return list;
}

void HXFreshness::onChange(const journal::Change& change) {
  if (isWrite(change)) write(change.key, change.time);
}

void HXFreshness::write(std::string_view key, mw::SystemTimePoint time) {
  // By the clock of the deadlines. That of the memory may have been set back since.
  const Expectations::Duration age = mw::systemNow() - time;
  const auto at = loop_->now() - std::max(Expectations::Duration::zero(), age);
  // As exact as the memory answers, so that a write is known again however it was told of.
  const auto name = std::chrono::floor<std::chrono::microseconds>(time);
  const std::lock_guard lock(mutex_);
  if (expectations_.knows(key, name)) return;
  note(kRecovered, expectations_.write(key, at, name));
  arm();
}

void HXFreshness::arm() {
  const auto next = expectations_.next();
  if (hasLeft_ || !next || (armedFor_ && *armedFor_ <= *next)) return;
  armedFor_ = next;
  loop_->post(lifetime_.track([this, at = *next] { onTimer(at); }), *next - loop_->now());
}

void HXFreshness::onTimer(Expectations::TimePoint armedFor) {
  std::vector<std::string> due;
  {
    const std::lock_guard lock(mutex_);
    if (armedFor_ != armedFor) return;
    armedFor_.reset();
    due = expectations_.takeDue(loop_->now());
  }
  for (const std::string& key : due) judge(key);
  const std::lock_guard lock(mutex_);
  arm();
}

void HXFreshness::judge(const std::string& key) {
  look(key);
  const std::lock_guard lock(mutex_);
  note(kOverdue, expectations_.declareOverdue(key, loop_->now()));
}

void HXFreshness::look(const std::string& key) {
  HXValue triple;
  try {
    triple = memory().getTimestamp(key);
  } catch (const std::exception&) {  // There is no such key, or no memory.
    return;
  }
  if (!triple[0].isValid()) return;
  using std::chrono::microseconds;
  const microseconds time = std::chrono::seconds(triple[1].toInt64()) + microseconds(triple[2].toInt64());
  write(key, mw::SystemTimePoint(time));
}

void HXFreshness::note(const char* event, std::optional<Expectations::Standing> standing) {
  if (!standing || hasLeft_) return;
  news_.push_back({event, std::move(*standing)});
  if (std::exchange(isTelling_, true)) return;
  loop_->post(lifetime_.track([this] { tellNews(); }), {});
}

void HXFreshness::tellNews() {
  while (true) {
    std::deque<News> all;
    {
      const std::lock_guard lock(mutex_);
      all.swap(news_);
      isTelling_ = !all.empty();
    }
    if (all.empty()) return;
    for (const News& news : all) raise(news);
  }
}

void HXFreshness::raise(const News& news) {
  try {
    memory().raiseEvent(news.event, HXValue(tripleOf(news.standing)));
  } catch (const std::exception& error) {
    mw::log::warning(kCategory, "raise", fmt::format("{} of {}: {}", news.event, news.standing.key, error.what()));
  }
}

}  // namespace HX
