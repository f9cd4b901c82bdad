#include "feed.h"

#include "format.h"
#include "target.h"

#include <hxerror/hxerror.h>
#include <libmw/batch.h>
#include <libmw/signal.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace korvo {
namespace {

using namespace std::chrono_literals;

constexpr auto kLookPeriod = 500ms;
constexpr auto kListingPeriod = 10s;
constexpr auto kFindPeriod = 1s;
constexpr std::size_t kKeysInTurn = 256;

}  // namespace

bool LiveFeed::advance(std::size_t rows) {
  if (memory_ && connectionNumber_ != target_.connectionNumber()) loseMemory("the broker is back");
  if (!memory_) findMemory();
  if (!memory_) return false;
  try {
    bool changed = takeNews();
    changed |= takeListing();
    changed |= takeLook();
    if (search_ && search_->advance(target_, memory_->asObject())) nextLook_ = {};
    if (look_.empty() && Clock::now() >= nextLook_) startLook(rows);
    return changed;
  } catch (const std::exception& error) {
    loseMemory(error.what());
    return true;
  }
}

void LiveFeed::findMemory() {
  if (Clock::now() < nextFind_) return;
  nextFind_ = Clock::now() + kFindPeriod;
  connectionNumber_ = target_.connectionNumber();
  try {
    memory_ = target_.require("HXMemory");
    follow("HXMemory/KeyAdded", false);
    follow("HXMemory/KeyRemoved", true);
    nextListing_ = {};
    nextLook_ = {};
    trouble_.clear();
  } catch (const std::exception& error) {
    loseMemory(error.what());
  }
}

void LiveFeed::loseMemory(const std::string& why) {
  trouble_ = why;
  memory_.reset();
  listing_.reset();
  sinceListing_.clear();
  look_.clear();
  detailLook_.reset();
  const std::lock_guard lock(mutex_);
  followed_.clear();
}

/// Has the keys that an event tells of put among the news. The connection is made on the thread that brings the object.
void LiveFeed::follow(const char* event, bool removed) {
  const auto note = [this, removed](const HX::HXValue& key) {
    const std::string* const name = key.stringIf();
    const std::lock_guard lock(mutex_);
    if (name) news_.push_back({*name, removed});
  };
  const mw::SignalSubscriber subscriber = mw::SignalSubscriber(note).track(lifetime_.token());
  const auto connect = [this, subscriber](const mw::AnyValue& answer) {
    auto object = answer.reference().to<mw::AnyObject>();
    object->connect("signal", subscriber);
    const std::lock_guard lock(mutex_);
    followed_.push_back(std::move(object));
  };
  memory_->asObject()->async("subscriber", std::string(event)).andThen(lifetime_.track(connect));
}

bool LiveFeed::takeNews() {
  std::vector<KeyNews> all;
  {
    const std::lock_guard lock(mutex_);
    all.swap(news_);
  }
  apply(all);
  if (listing_) sinceListing_.insert(sinceListing_.end(), all.begin(), all.end());
  return !all.empty();
}

void LiveFeed::apply(const std::vector<KeyNews>& news) {
  for (const KeyNews& one : news) one.removed ? model_.remove(one.key) : model_.add(one.key);
}

bool LiveFeed::takeListing() {
  if (!listing_ && Clock::now() >= nextListing_) {
    nextListing_ = Clock::now() + kListingPeriod;
    listing_ = memory_->asObject()->async("getDataListName");
  }
  if (!listing_ || listing_->isRunning()) return false;
  model_.setKeys(std::exchange(listing_, std::nullopt)->value().reference().to<std::vector<std::string>>());
  apply(std::exchange(sinceListing_, {}));
  return true;
}

bool LiveFeed::takeLook() {
  const auto isOpen = [](const Asked& asked) {
    return std::ranges::any_of(asked.answers, [](const Answer& answer) { return answer.isRunning(); });
  };
  bool taken = false;
  if (!look_.empty() && std::ranges::none_of(look_, isOpen)) {
    for (Asked& asked : std::exchange(look_, {})) learn(std::move(asked));
    taken = true;
  }
  if (detailLook_ && !isOpen(*detailLook_)) {
    learnDetail(*std::exchange(detailLook_, std::nullopt));
    taken = true;
  }
  return taken;
}

void LiveFeed::inspect(const std::optional<std::string>& key) {
  inspected_ = key;
  detail_.reset();
  search_.reset();
  if (key) search_.emplace(*key);
  nextLook_ = {};
}

void LiveFeed::learnDetail(Asked asked) {
  if (asked.key != inspected_) return;
  try {
    KeyAnswers answers;
    for (Answer& answer : asked.answers) answers.push_back(std::move(answer).take());
    detail_ = toDetail(asked.key, answers);
    if (search_) detail_->extractor = search_->found();
  } catch (const HX::HXError&) {  // How the memory says that there is no such key.
    detail_.reset();
  }
}

void LiveFeed::startDetail() {
  if (!inspected_ || detailLook_) return;
  const mw::AnyObject memory = memory_->asObject();
  std::vector<Answer> answers;
  for (const KeyQuestion ask : kDetailQuestions) answers.push_back(ask(memory.get(), *inspected_));
  detailLook_ = Asked{*inspected_, std::move(answers)};
}

void LiveFeed::learn(Asked asked) {
  try {
    KeyAnswers answers;
    for (Answer& answer : asked.answers) answers.push_back(std::move(answer).take());
    model_.learn(asked.key, toFacts(answers), lookTime_);
  } catch (const HX::HXError&) {  // How the memory says that there is no such key.
    model_.remove(asked.key);
  }
}

void LiveFeed::startLook(std::size_t rows) {
  nextLook_ = Clock::now() + kLookPeriod;
  startDetail();
  // Answers are taken later than they were given; this is nearer to that.
  lookTime_ = mw::systemNow();
  std::vector<std::string> keys;
  for (LiveRow& row : model_.page(rows)) keys.push_back(std::move(row.key));
  if (model_.column() != LiveColumn::Key) {
    for (std::string& key : model_.nextInTurn(kKeysInTurn)) keys.push_back(std::move(key));
    std::ranges::sort(keys);
    const auto repeated = std::unique(keys.begin(), keys.end());
    keys.erase(repeated, keys.end());
  }
  const mw::AnyObject memory = memory_->asObject();
  const mw::Batch batch;
  for (std::string& key : keys) {
    std::vector<Answer> answers;
    for (const KeyQuestion ask : kFactQuestions) answers.push_back(ask(memory.get(), key));
    look_.push_back({std::move(key), std::move(answers)});
  }
}

}  // namespace korvo
