#pragma once

#include <hxjournal/batch.h>
#include <hxjournal/follow.h>
#include <hxjournal/journal.h>
#include <hxjournal/request.h>
#include <hxvalue/hxvalue.h>
#include <libmw/signal.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

namespace HX {

/// What `HXJournal.open` gives: follows the journal for somebody in another process, who connects to `batch`, starts
/// it, and says how far he has got. It ends with the last handle on it, so with the connection too.
///
/// A link has no back pressure that would slow a follower down. So no more than `kMostLines` or `kMostBytes` are under
/// way, beside what the last batch goes over them; then the follower pauses, and goes on when half of that has been
/// acknowledged. What it has missed meanwhile it tells as a gap.
///
/// @par Threads  Any. The follower's callbacks come one at a time.
class Feed : public std::enable_shared_from_this<Feed> {
 public:
  static constexpr std::size_t kMostLines = 16'384;
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20U;
  /// A batch leaves when it has so much, or when there is nothing more to tell.
  static constexpr std::size_t kBatchLines = 1024;
  static constexpr std::size_t kBatchBytes = std::size_t{256} << 10U;
  /// So much is told before an acknowledgement is asked for.
  static constexpr std::size_t kAskLines = 2048;
  static constexpr std::size_t kAskBytes = std::size_t{512} << 10U;
  /// Where nothing is told, the place to go on from is, so often.
  static constexpr std::chrono::seconds kPlaceAgain{1};

  Feed(std::shared_ptr<journal::Journal> journal, journal::Request request);
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;
  ~Feed();

  /// Describes its members to the middleware.
  static void describe();

  /// Begins to follow, once; changes from now on are told.
  /// @return The place to go on from later, as long as no batch has come: [epoch, revision].
  /// @throws std::runtime_error when it was started before, and when the memory has gone.
  HXValue start();
  /// All up to a batch that asked for this has been told.
  /// @param number  Of that batch.
  void took(std::int64_t number);
  /// Ends it.
  void stop();

  mw::Signal<HXValue> batch;

 private:
  struct Asked {
    std::uint64_t number;
    std::size_t lines;
    std::size_t bytes;
  };

  template <class... Args>
  auto callback(void (Feed::*tell)(Args...));
  void follow(std::optional<journal::Position> since);
  void startOver() noexcept;
  void onChange(const journal::Change& change);
  void onGap(const journal::Gap& gap);
  void onUnchanged(std::string_view key, journal::Position at);
  void onComplete(journal::Position at);
  void onPause();
  void waitUntilBegun();
  void send();
  HXValue take(journal::Position position);
  bool isBatchFull() const noexcept { return writer_.lines() >= kBatchLines || writer_.bytes() >= kBatchBytes; }
  bool isFull() const noexcept { return lines_ >= kMostLines || bytes_ >= kMostBytes; }
  bool isHalfFull() const noexcept { return lines_ >= kMostLines / 2 || bytes_ >= kMostBytes / 2; }

  const std::shared_ptr<journal::Journal> journal_;
  const journal::Request request_;
  journal::BatchWriter writer_;  // These three are the follower's alone.
  std::chrono::steady_clock::time_point sentAt_;
  bool saidPause_ = false;  // By the last batch.

  std::atomic<bool> begun_{false};  // Written under `mutex_`.
  std::mutex mutex_;                // Guards all below. Outside the follower's; not held while a batch is sent.
  bool started_ = false;
  bool full_ = false;
  std::deque<Asked> unanswered_;  // Each with what came since the one before.
  std::size_t linesSinceAsked_ = 0;
  std::size_t bytesSinceAsked_ = 0;
  std::size_t lines_ = 0;  // Under way.
  std::size_t bytes_ = 0;
  journal::Position sent_;  // Where to go on after what was sent.
  journal::Follow follow_;
};

}  // namespace HX
