#include "logline.h"
#include "threadlocal.h"

#include <hxerror/mutex.h>
#include <libmw/detail/logdeferral.h>
#include <libmw/eventloop.h>

#include <condition_variable>
#include <deque>
#include <string>
#include <utility>

namespace mw::detail {
namespace {

HX_THREAD_LOCAL constinit LogDeferral* outermost = nullptr;

struct OwnedRecord {
  explicit OwnedRecord(const LogRecord& record)
      : level(record.level),
        category(record.category),
        function(record.function),
        text(record.text),
        time(record.time) {}

  LogLevel level;
  std::string category;
  std::string function;
  std::string text;
  SystemTimePoint time;
};

}  // namespace

/// Of one thread, on their way to the sinks. Whoever delivers does so alone, which keeps their order.
class LogDeferral::Records {
 public:
  /// @return Whether nobody comes for it so far.
  bool add(const LogRecord& record) {
    const HX::MutexLock lock(mutex_);
    waiting_.emplace_back(record);
    return !isDelivering_ && !std::exchange(isAskedFor_, true);
  }

  void deliver() {
    HX::MutexLock lock(mutex_);
    isDelivered_.wait(lock.native(), [this]() HX_REQUIRES(mutex_) { return !isDelivering_; });
    isDelivering_ = true;
    isAskedFor_ = false;
    while (!waiting_.empty()) {
      const OwnedRecord record = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      log::tellSinks({record.level, record.category, record.function, record.text, record.time});
      lock.lock();
    }
    isDelivering_ = false;
    isDelivered_.notify_all();
  }

 private:
  HX::Mutex mutex_;
  std::condition_variable isDelivered_;
  std::deque<OwnedRecord> waiting_ HX_GUARDED_BY(mutex_);
  bool isAskedFor_ HX_GUARDED_BY(mutex_) = false;
  bool isDelivering_ HX_GUARDED_BY(mutex_) = false;
};

LogDeferral::LogDeferral() noexcept : isOutermost_(outermost == nullptr) {
  if (isOutermost_) outermost = this;
}

LogDeferral::~LogDeferral() {
  if (!isOutermost_) return;
  outermost = nullptr;  // What a sink logs is no affair of this scope.
  if (records_) records_->deliver();
}

LogDeferral* LogDeferral::present() noexcept { return outermost; }

void LogDeferral::add(const LogRecord& record) {
  if (!records_) records_ = std::make_shared<Records>();
  if (records_->add(record)) defaultLoop().post([records = records_] { records->deliver(); });
}

}  // namespace mw::detail
