#pragma once

#include <libmw/session.h>

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace kit {

/// Look-ups of a session that end when the test says so. Must outlive the session.
class LookUps {
 public:
  using Promise = mw::Promise<mw::AnyObject>;

  /// @param onCancel  What a look-up does when it is to be cancelled; empty lets it be cancelled at once.
  explicit LookUps(mw::Session& session, const std::function<void(Promise&)>& onCancel = {}) {
    session.setResolver([this, onCancel](const std::string& name) {
      Promise promise(onCancel);
      const std::lock_guard lock(mutex_);
      started_[name].push_back(promise);
      return promise.future();
    });
  }

  /// The earliest look-up of `name` that was not taken yet.
  Promise take(const std::string& name) {
    const std::lock_guard lock(mutex_);
    auto& waiting = started_.at(name);
    Promise first = std::move(waiting.front());
    waiting.pop_front();
    return first;
  }

  std::size_t waiting(const std::string& name) {
    const std::lock_guard lock(mutex_);
    return started_[name].size();
  }

 private:
  std::mutex mutex_;  // Guards `started_`.
  std::map<std::string, std::deque<Promise>> started_;
};

}  // namespace kit
