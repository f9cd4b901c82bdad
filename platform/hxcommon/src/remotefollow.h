#pragma once

#include <hxauthor/author.h>
#include <hxerror/mutex.h>
#include <hxjournal/batch.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>
#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>
#include <libmw/signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace HX {

class HXBroker;
class HXProxy;

/// The service HXJournal, which offers the journal of another process.
/// @throws std::runtime_error when there is none, and says why.
std::shared_ptr<HXProxy> requireJournalService(HXBroker& broker);

/// Follows the journal of another process through the service HXJournal.
///
/// Batches are queued as they come, no more than the service sends without an acknowledgement, and told by one chain of
/// short tasks on the event loop. When the service is lost, with the connection or alone, the chain tells what it has,
/// and once the service is there again opens anew from where it stands: the same journal goes on or tells of a gap,
/// another one tells of a gap.
///
/// @par Threads  Any; what is not said to be guarded belongs to the chain.
class RemoteFollow : public journal::Following, public std::enable_shared_from_this<RemoteFollow> {
 public:
  using Listener = std::function<void(const journal::Change&)>;

  RemoteFollow(const std::shared_ptr<HXBroker>& broker, journal::Filter filter, Listener onChange,
               journal::FollowOptions options);
  RemoteFollow(const RemoteFollow&) = delete;
  RemoteFollow& operator=(const RemoteFollow&) = delete;
  ~RemoteFollow() override;

  /// Begins.
  /// @throws std::runtime_error when there is no such service, and when it refuses.
  void begin();

  void end() noexcept override;
  journal::Position position() const noexcept override;
  void pause() noexcept override;
  void resume() override;

 private:
  struct Arrived {
    std::uint64_t opening;
    HXValue batch;
  };

  void listen();
  void open();
  void onBatch(std::uint64_t opening, const HXValue& batch);
  void onService(bool isThere);
  void post(bool here = false) HX_REQUIRES(mutex_);

  void run();
  bool enter();
  void leave();
  void work();
  bool next();
  void tell();
  template <class Function, class... Args>
  void callBack(const Function& function, const Args&... args) noexcept;
  void finish();
  void moveTo(journal::Position position) noexcept;
  void reopen();
  void loseTrack(const std::string& why);
  void dropCallbacks() noexcept;

  const std::weak_ptr<HXBroker> broker_;
  const Author who_ = Author::present();  // In whose name it follows, also when it opens anew.
  const journal::Filter filter_;
  Listener onChange_;  // These two go when it has ended and no callback runs.
  journal::FollowOptions options_;

  journal::BatchReader reader_;
  std::uint64_t read_ = 0;  // The opening that it reads.
  journal::Batch batch_;    // What is being told,
  std::size_t line_ = 0;    // up to here.
  bool isWalking_ = false;  // A snapshot is being told.
  bool saidGap_ = false;
  bool isTelling_ = false;     // It is in a batch. Between two tasks, whoever has the lock may ask.
  std::exception_ptr thrown_;  // By a callback.

  mutable Mutex mutex_;  // A leaf.
  std::condition_variable stopped_;
  std::thread::id running_ HX_GUARDED_BY(mutex_);
  std::deque<Arrived> queue_ HX_GUARDED_BY(mutex_);
  mw::AnyObject feed_ HX_GUARDED_BY(mutex_);         // Empty while there is none.
  std::uint64_t opening_ HX_GUARDED_BY(mutex_) = 0;  // Counts them: what comes late of an earlier one is not told.
  // The place. Under the lock where the epoch becomes another one; the chain goes on within it without, line by line.
  std::atomic<std::uint64_t> epoch_{0};
  std::atomic<std::uint64_t> revision_{0};
  mw::SignalLink onRegistered_ HX_GUARDED_BY(mutex_) = mw::kInvalidSignalLink;
  mw::SignalLink onUnregistered_ HX_GUARDED_BY(mutex_) = mw::kInvalidSignalLink;
  bool isLost_ HX_GUARDED_BY(mutex_) = false;
  bool mayReopen_ HX_GUARDED_BY(mutex_) = false;             // The service has come back, or it is worth another try.
  bool posted_ HX_GUARDED_BY(mutex_) = false;                // A task is under way,
  std::chrono::nanoseconds delay_ HX_GUARDED_BY(mutex_){0};  // or is to be, not before this has passed.
  std::atomic<bool> paused_{false};                          // These two are written under it.
  std::atomic<bool> ended_{false};
  bool leftByItself_ HX_GUARDED_BY(mutex_) = false;
};

}  // namespace HX
