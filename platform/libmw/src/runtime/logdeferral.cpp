#include "logline.h"
#include "threadlocal.h"

#include <hxerror/mutex.h>
#include <libmw/detail/logdeferral.h>
#include <libmw/eventloop.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace mw::detail {
namespace {

HX_THREAD_LOCAL constinit LogDeferral* outermost = nullptr;

constexpr std::size_t kMostWaiting = 10'000;

struct OwnedRecord {
  explicit OwnedRecord(const LogRecord& record, std::vector<log::SinkId> ofSinks = {})
      : level(record.level),
        category(record.category),
        function(record.function),
        text(record.text),
        time(record.time),
        causes(std::move(ofSinks)) {}

  LogLevel level;
  std::string category;
  std::string function;
  std::string text;
  SystemTimePoint time;
  std::vector<log::SinkId> causes;
};

OwnedRecord leftOut(std::uint64_t count) {
  const std::string text = fmt::format("{} records left out, which came faster than the sinks took them", count);
  return OwnedRecord({LogLevel::Warning, "log", "write", text, systemNow()});
}

}  // namespace

/// Of one thread, on their way to the sinks. Whoever delivers does so alone, which keeps their order.
class LogDeferral::Records {
 public:
  /// @return Whether nobody comes for it so far.
  bool add(const LogRecord& record, std::vector<log::SinkId> causes) {
    const HX::MutexLock lock(mutex_);
    if (waiting_.size() < kMostWaiting) {
      waiting_.emplace_back(record, std::move(causes));
    } else {
      ++leftOut_;
    }
    return !isDelivering_ && !std::exchange(isAskedFor_, true);
  }

  void deliver() {
    HX::MutexLock lock(mutex_);
    isDelivered_.wait(lock.native(), [this]() HX_REQUIRES(mutex_) { return !isDelivering_; });
    isDelivering_ = true;
    isAskedFor_ = false;
    while (!waiting_.empty() || leftOut_ > 0) {
      if (waiting_.empty()) waiting_.push_back(leftOut(std::exchange(leftOut_, 0)));
      const OwnedRecord record = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      log::handOver({record.level, record.category, record.function, record.text, record.time}, record.causes);
      lock.lock();
    }
    isDelivering_ = false;
    isDelivered_.notify_all();
  }

 private:
  HX::Mutex mutex_;
  std::condition_variable isDelivered_;
  std::deque<OwnedRecord> waiting_ HX_GUARDED_BY(mutex_);
  std::uint64_t leftOut_ HX_GUARDED_BY(mutex_) = 0;
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

void LogDeferral::add(const LogRecord& record, std::vector<log::SinkId> causes) {
  if (!records_) records_ = std::make_shared<Records>();
  if (!records_->add(record, std::move(causes))) return;
  try {
    defaultLoop().post([records = records_] { records->deliver(); });
  } catch (...) {
    // It could not be done earlier, so the end of the scope does it.
  }
}

}  // namespace mw::detail
