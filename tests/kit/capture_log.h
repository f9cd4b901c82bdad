#pragma once

#include <libmw/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kit {

/// Collects what is logged in some categories while it lives, at every level, instead of standard error.
///
/// Threads: safe from any; the records of one thread are kept in their order.
class CaptureLog {
 public:
  struct Entry {
    mw::LogLevel level;
    std::string category;
    std::string function;
    std::string text;

    bool operator==(const Entry&) const = default;
  };

  explicit CaptureLog(const std::vector<std::string>& categories) : wasOnStderr_(mw::log::setStderrSink(false)) {
    for (const auto& name : categories) {
      levels_.emplace_back(name, mw::log::addCategory(name).level());
      mw::log::setLevel(mw::LogLevel::Debug, name);
    }
    sink_ = mw::log::addSink([this](const mw::LogRecord& record) { add(record); });
  }
  CaptureLog(const CaptureLog&) = delete;
  CaptureLog& operator=(const CaptureLog&) = delete;
  ~CaptureLog() {
    mw::log::removeSink(sink_);
    for (const auto& [name, level] : levels_) mw::log::setLevel(level, name);
    mw::log::setStderrSink(wasOnStderr_);
  }

  std::vector<Entry> entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
  }

  std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (const auto& entry : entries()) texts.push_back(entry.text);
    return texts;
  }

  /// Waits until `count` records are there. @return False when they are not after `limit`, which ends a failing test.
  bool waitFor(std::size_t count, std::chrono::seconds limit = std::chrono::seconds(30)) const {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, limit, [&] { return entries_.size() >= count; });
  }

 private:
  void add(const mw::LogRecord& record) {
    const auto isMine = [&](const auto& category) { return category.first == record.category; };
    if (std::none_of(levels_.begin(), levels_.end(), isMine)) return;
    const std::lock_guard lock(mutex_);
    entries_.push_back(
        {record.level, std::string(record.category), std::string(record.function), std::string(record.text)});
    added_.notify_all();
  }

  std::vector<std::pair<std::string, mw::LogLevel>> levels_;
  mutable std::mutex mutex_;  // guards entries_
  mutable std::condition_variable added_;
  std::vector<Entry> entries_;
  mw::log::SinkId sink_ = 0;
  bool wasOnStderr_;
};

}  // namespace kit
