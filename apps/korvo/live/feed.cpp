#include "feed.h"

#include "base/format.h"
#include "base/target.h"

#include <hxcommon/hxbroker.h>
#include <hxerror/hxerror.h>
#include <libmw/batch.h>
#include <libmw/signal.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using HX::journal::Change;
using HX::journal::What;

/// More often nobody can see a value change.
constexpr double kLooksASecond = 10;
constexpr auto kLookPeriod = 10s;
constexpr auto kShortestLookPeriod = 500ms;
constexpr auto kTryPeriod = 1s;

std::string kindName(std::uint8_t kind) {
  constexpr std::array<const char*, 5> kNames{"", "Data", "", "Event", "MicroEvent"};  // By the memory's numbers.
  return kind < kNames.size() ? kNames[kind] : "";
}

bool isOpen(const mw::Future<mw::AnyValue>& answer) { return answer.isRunning(); }

/// @throws HX::HXError, as the memory says that there is no such key.
KeyAnswers taken(std::vector<mw::Future<mw::AnyValue>>& pending) {
  KeyAnswers answers;
  answers.reserve(pending.size());
  for (auto& answer : pending) answers.push_back(std::move(answer).take());
  return answers;
}

}  // namespace

LiveFeed::LiveFeed(Target& target, LiveModel& model) : target_(target), model_(model) {
  mw::Session& session = *target_.ownBroker()->session();
  session.connectionLost.connect(
      mw::SignalSubscriber([this](const std::string& why) { setTrouble(why); }).track(lifetime_.token()));
  session.connectionRestored.connect(mw::SignalSubscriber([this] { setTrouble(""); }).track(lifetime_.token()));
}

LiveFeed::~LiveFeed() {
  follow_.end();
  lifetime_.destroy();
}

void LiveFeed::setTrouble(const std::string& why) {
  {
    const auto held = lock();
    trouble_ = why;
  }
  news_.set();
}

std::string LiveFeed::trouble() {
  const auto held = lock();
  return trouble_;
}

bool LiveFeed::isComplete() {
  const auto held = lock();
  return isComplete_;
}

void LiveFeed::begin() {
  memory_ = target_.require("HXMemory");
  HX::journal::Filter filter;
  // What the memory raises about its own keys goes with each of them.
  if (model_.filter().find("HXMemory") == std::string::npos) filter.exclude("HXMemory/");
  follow_ = target_.follow(
      std::move(filter), [this](const Change& change) { take(change); }, options());
  askOverdue();
}

HX::journal::FollowOptions LiveFeed::options() {
  HX::journal::FollowOptions options;
  options.rate = kLooksASecond;
  options.promptness = HX::journal::Promptness::Relaxed;
  options.onGap = [this](const HX::journal::Gap& gap) {
    const auto held = lock();
    if (gap.full) model_.beginSnapshot();
  };
  options.onUnchanged = [this](std::string_view key, HX::journal::Position) {
    const auto held = lock();
    model_.keep(std::string(key));
  };
  options.onComplete = [this](HX::journal::Position) {
    {
      const auto held = lock();
      model_.endSnapshot();
      isComplete_ = true;
    }
    news_.set();
  };
  return options;
}

void LiveFeed::take(const Change& change) {
  const std::string key(change.key);
  {
    const auto held = lock();
    if (change.what == What::Removed) {
      model_.remove(key);
    } else if (change.what == What::Described) {
      model_.count(key, change.nth, mw::systemNow());  // Its value is the description.
    } else {
      LiveFacts facts{kindName(change.kind), change.value, change.time, std::nullopt};
      model_.learn(key, std::move(facts), change.nth, change.isState, mw::systemNow());
    }
    noteFreshness(change);
    inspectedChanged_ = inspectedChanged_ || inspected_ == key;
  }
  news_.set();
}

/// With the lock held. What is overdue looks like any other value that has not changed.
void LiveFeed::noteFreshness(const Change& change) {
  const bool isOverdue = change.key == "HXFreshness/Overdue";
  if (change.isState || (!isOverdue && change.key != "HXFreshness/Recovered")) return;
  const std::string* const key = change.value.getSize() > 0 ? change.value[0].stringIf() : nullptr;
  if (key) model_.setOverdue(*key, isOverdue);
}

void LiveFeed::tryToBegin() {
  if (Clock::now() < nextTry_) return;
  nextTry_ = Clock::now() + kTryPeriod;
  try {
    begin();
    setTrouble("");
  } catch (const std::exception& error) {
    setTrouble(error.what());
  }
}

LiveFeed::Clock::time_point LiveFeed::advance(const std::vector<std::string>& keys) {
  news_.clear();
  if (!follow_) tryToBegin();
  if (!follow_) return nextTry_;
  takeAnswers();
  try {
    if (search_ && search_->advance(target_, memory_->asObject())) nextLook_ = {};
    const bool isNew = keys != askedKeys_ || [this] {
      const auto held = lock();
      return inspectedChanged_;
    }();
    const auto earliest = nextLook_ - kLookPeriod + kShortestLookPeriod;
    if (isNew && look_.empty() && !detailLook_) nextLook_ = std::min(nextLook_, earliest);
    if (look_.empty() && !detailLook_ && Clock::now() >= nextLook_) ask(keys);
  } catch (const std::exception& error) {
    setTrouble(error.what());
    nextLook_ = Clock::now() + kTryPeriod;
  }
  const bool isSearching = search_ && search_->found().empty();
  return isSearching ? std::min(nextLook_, Clock::now() + 200ms) : nextLook_;
}

LiveFeed::Answer LiveFeed::woken(Answer answer) {
  answer.andThen(lifetime_.track([this](const mw::AnyValue&) { news_.set(); }));
  return answer;
}

void LiveFeed::ask(const std::vector<std::string>& keys) {
  nextLook_ = Clock::now() + kLookPeriod;
  askedKeys_ = keys;
  std::optional<std::string> inspected;
  {
    const auto held = lock();
    inspectedChanged_ = false;
    inspected = inspected_;
  }
  const mw::AnyObject memory = memory_->asObject();
  const mw::Batch batch;
  for (const std::string& key : keys) look_.push_back({key, {woken(askSubscribers(memory.get(), key))}});
  if (!inspected) return;
  std::vector<Answer> answers;
  for (const KeyQuestion question : kDetailQuestions) answers.push_back(woken(question(memory.get(), *inspected)));
  detailLook_ = Asked{*inspected, std::move(answers)};
}

void LiveFeed::askOverdue() {
  overdue_.reset();
  if (const auto freshness = target_.find("HXFreshness")) overdue_ = woken(freshness->asObject()->async("overdue"));
}

void LiveFeed::takeAnswers() {
  const auto isUnanswered = [](const Asked& asked) { return std::ranges::any_of(asked.answers, isOpen); };
  if (!look_.empty() && std::ranges::none_of(look_, isUnanswered)) {
    for (Asked& asked : std::exchange(look_, {})) {
      if (!asked.answers[0].hasValue()) continue;  // A key that has gone.
      const auto count = asked.answers[0].value().reference().to<std::vector<std::string>>().size();
      const auto held = lock();
      model_.learnSubscribers(asked.key, count);
    }
  }
  if (detailLook_ && !isUnanswered(*detailLook_)) {
    Asked asked = *std::exchange(detailLook_, std::nullopt);
    try {
      KeyAnswers answers = taken(asked.answers);
      detail_ = toDetail(asked.key, answers);
      if (search_) detail_->extractor = search_->found();
    } catch (const std::exception&) {  // The key has gone.
      detail_.reset();
    }
  }
  // Once the keys are there that it names.
  if (overdue_ && isComplete() && !isOpen(*overdue_)) {
    const Answer answer = *std::exchange(overdue_, std::nullopt);
    HX::HXValue list;
    if (!answer.hasValue() || !answer.value().reference().toValue(list)) return;
    const auto held = lock();
    for (std::size_t i = 0; i < list.getSize(); ++i) model_.setOverdue(list[i][0].asString(), true);
  }
}

void LiveFeed::inspect(const std::optional<std::string>& key) {
  detail_.reset();
  search_.reset();
  detailLook_.reset();
  if (key) search_.emplace(*key);
  nextLook_ = {};
  const auto held = lock();
  inspected_ = key;
}

}  // namespace korvo
