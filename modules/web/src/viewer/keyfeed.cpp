#include "keyfeed.h"

#include <libmw/log.h>

#include <chrono>
#include <exception>
#include <utility>

namespace HX::web {
namespace {

using namespace std::chrono_literals;

constexpr auto kRetry = 500ms;

}  // namespace

KeyFeed::KeyFeed(std::shared_ptr<Model> model, mw::EventLoop& loop) : model_(std::move(model)), loop_(loop) {}

void KeyFeed::want(std::set<std::string> keys) {
  {
    const MutexLock lock(mutex_);
    if (isOver_ || keys == wanted_) return;
    wanted_ = std::move(keys);
    ++wishes_;
    if (std::exchange(isRenewing_, true)) return;
  }
  renewLater(0ns);
}

void KeyFeed::renewLater(std::chrono::nanoseconds delay) {
  loop_.post(
      [weak = weak_from_this()] {
        if (const auto feed = weak.lock()) feed->renew();
      },
      delay);
}

/// Follows what is wanted now. The follower before goes when its successor is there, so that nothing is missed between.
void KeyFeed::renew() {
  for (;;) {
    journal::Filter filter;
    std::uint64_t wish = 0;
    bool isNone = false;
    {
      const MutexLock lock(mutex_);
      if (isOver_ || followed_ == wishes_) {
        isRenewing_ = false;
        return;
      }
      for (const std::string& key : wanted_) filter.addKey(key);
      isNone = wanted_.empty();
      wish = wishes_;
    }
    journal::Follow follow;
    try {
      // The feed may go meanwhile, and its follower with it: the callback holds neither.
      if (!isNone) {
        follow = model_->follow(std::move(filter),
                                [weak = weak_from_this()](const journal::Change& change) {
                                  if (const auto feed = weak.lock()) feed->add(change);
                                },
                                {});
      }
    } catch (const std::exception& error) {
      mw::log::debug("web", "follow", error.what());
      return renewLater(kRetry);
    }
    {
      const MutexLock lock(mutex_);
      if (!isOver_) {
        std::swap(follow_, follow);
        followed_ = wish;
      }
    }
    follow.end();
  }
}

void KeyFeed::add(const journal::Change& change) {
  if (change.what == journal::What::Described) return;
  const MutexLock lock(mutex_);
  if (entries_.size() == kMost) {
    entries_.pop_front();
    ++dropped_;
  }
  entries_.push_back({std::string(change.key), change.value, change.time, change.at.revision, change.isState,
                      change.what == journal::What::Removed, change.withheld});
}

std::vector<KeyFeed::Entry> KeyFeed::take(std::uint64_t& dropped) {
  const MutexLock lock(mutex_);
  std::vector<Entry> taken(std::make_move_iterator(entries_.begin()), std::make_move_iterator(entries_.end()));
  entries_.clear();
  dropped += std::exchange(dropped_, 0);
  return taken;
}

void KeyFeed::end() {
  journal::Follow ended;
  {
    const MutexLock lock(mutex_);
    isOver_ = true;
    entries_.clear();
    std::swap(ended, follow_);
  }
  // Ending waits for a callback, and who ends a viewer must not.
  loop_.post([held = std::make_shared<journal::Follow>(std::move(ended))] { held->end(); });
}

}  // namespace HX::web
