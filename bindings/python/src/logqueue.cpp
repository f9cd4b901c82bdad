#include "logqueue.h"

#include "values.h"

#include <utility>

namespace korvo::python {
namespace {

/// A program that does not take them has other troubles.
constexpr std::size_t kMost = 10'000;

}  // namespace

LogQueue& LogQueue::instance() {
  static auto* const the = new LogQueue;
  return *the;
}

void LogQueue::begin(std::optional<int> level) {
  if (level) mw::log::setLevel(static_cast<mw::LogLevel>(*level));
  const std::lock_guard lock(mutex_);
  if (sink_ != 0) return;
  sink_ = mw::log::addSink([this](const mw::LogRecord& record) { add(record); });
  mw::log::setStderrSink(false);
}

void LogQueue::end() {
  mw::log::SinkId sink = 0;
  {
    const std::lock_guard lock(mutex_);
    sink = std::exchange(sink_, 0);
  }
  if (sink == 0) return;
  mw::log::setStderrSink(true);
  mw::log::removeSink(sink);
  const std::lock_guard lock(mutex_);
  ready_.notify_all();
}

void LogQueue::add(const mw::LogRecord& record) {
  const double time = std::chrono::duration<double>(record.time.time_since_epoch()).count();
  const std::lock_guard lock(mutex_);
  if (records_.size() == kMost) {
    ++lost_;
    return;
  }
  records_.push_back({record.level, std::string(record.category), std::string(record.function),
                      std::string(record.text), time, std::exchange(lost_, 0)});
  ready_.notify_one();
}

py::object LogQueue::take(std::optional<double> limit) {
  requireUsable();
  std::deque<Record> taken;
  bool hasEnded = false;
  waitWhile(Limit(limit), [&](std::chrono::milliseconds longest) {
    std::unique_lock lock(mutex_);
    const bool isThere = ready_.wait_for(lock, longest, [this] { return sink_ == 0 || !records_.empty(); });
    hasEnded = sink_ == 0;
    taken.swap(records_);
    return isThere;
  });
  if (taken.empty() && hasEnded) return py::none();
  py::list told;
  const auto text = [](const std::string& bytes) { return toPython(HX::HXValue(bytes)); };
  for (const Record& one : taken) {
    told.append(py::make_tuple(static_cast<int>(one.level), text(one.category), text(one.function), text(one.text),
                               one.time, one.lost));
  }
  return told;
}

}  // namespace korvo::python
