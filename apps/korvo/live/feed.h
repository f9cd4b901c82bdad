#pragma once

#include "base/event.h"
#include "base/keyquestions.h"
#include "detail.h"
#include "extractorsearch.h"
#include "model.h"

#include <hxcommon/hxproxy.h>
#include <hxjournal/follow.h>
#include <libmw/genericobject.h>
#include <libmw/trackable.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvo {

class Target;

/// Keeps a live model up to date: it follows the memory, and says when there is something new to see. Where nothing
/// changes, nothing runs.
///
/// Who subscribes is in no feed, and is asked for the rows on the screen, now and then and without waiting: so a broker
/// that does not answer cannot freeze the screen.
///
/// @par Threads  One at a time. The model is filled on the event loop: it is used with `lock` held only.
class LiveFeed {
 public:
  using Clock = std::chrono::steady_clock;

  LiveFeed(Target& target, LiveModel& model);
  LiveFeed(const LiveFeed&) = delete;
  LiveFeed& operator=(const LiveFeed&) = delete;
  ~LiveFeed();

  /// Begins to follow. @throws std::runtime_error when there is nothing to follow.
  void begin();
  /// Holds the model as it is.
  std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
  /// Readable when something has come that is worth a look.
  int file() const { return news_.file(); }
  /// Takes the answers that are there, and asks again when it is time.
  /// @param keys  On the screen.
  /// @return When to come again at the latest.
  Clock::time_point advance(const std::vector<std::string>& keys);
  /// Whether all is known that there was at the beginning.
  bool isComplete();
  /// Finds out more about one key from now on; about none where `key` is none.
  void inspect(const std::optional<std::string>& key);
  /// What was found out about that key; none before the first answer, and when the key has gone.
  const std::optional<LiveDetail>& detail() const { return detail_; }
  /// What is wrong at the moment; empty when nothing is.
  std::string trouble();

 private:
  using Answer = mw::Future<mw::AnyValue>;
  struct Asked {
    std::string key;
    std::vector<Answer> answers;
  };

  void tryToBegin();
  HX::journal::FollowOptions options();
  void take(const HX::journal::Change& change);
  void noteFreshness(const HX::journal::Change& change);
  void setTrouble(const std::string& why);
  void ask(const std::vector<std::string>& keys);
  void askOverdue();
  Answer woken(Answer answer);
  void takeAnswers();

  Target& target_;
  LiveModel& model_;
  Event news_;
  std::shared_ptr<HX::HXProxy> memory_;
  std::vector<std::string> askedKeys_;
  std::vector<Asked> look_;
  std::optional<Asked> detailLook_;
  std::optional<LiveDetail> detail_;
  std::optional<ExtractorSearch> search_;  // For the extractor of what is inspected.
  std::optional<Answer> overdue_;
  Clock::time_point nextTry_;
  Clock::time_point nextLook_;
  std::mutex mutex_;  // Guards the model and all below but the last. Held for moments.
  std::string trouble_;
  std::optional<std::string> inspected_;
  bool inspectedChanged_ = false;
  bool isComplete_ = false;
  mw::Lifetime lifetime_;
  HX::journal::Follow follow_;
};

}  // namespace korvo
