#pragma once

#include "interpreter.h"

#include <libmw/log.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace korvo::python {

/// What the platform logs, on its way to a thread of Python: a sink must not wait for the GIL, which whoever logs may
/// keep somebody else from giving up.
///
/// @par Threads  Any.
class LogQueue {
 public:
  /// The only one. Never destroyed: threads log until the process has ended.
  static LogQueue& instance();

  /// Takes the lines from standard error. May be repeated.
  /// @param level  What is to be logged from now on, as `mw::LogLevel`; none leaves it as it is.
  void begin(std::optional<int> level);
  /// Gives them back, and lets whoever takes come to an end. Without the GIL.
  void end();
  /// Waits for records, and takes them.
  /// @param limit  Seconds; none for no limit.
  /// @return A list of (level, category, function, text, seconds since the epoch, how many were lost before); None once
  ///         it has ended.
  py::object take(std::optional<double> limit);

 private:
  struct Record {
    mw::LogLevel level;
    std::string category;
    std::string function;
    std::string text;
    double time;
    std::uint64_t lost;
  };

  void add(const mw::LogRecord& record);

  std::mutex mutex_;  // Guards everything below.
  std::condition_variable ready_;
  std::deque<Record> records_;
  std::uint64_t lost_ = 0;
  mw::log::SinkId sink_ = 0;
};

}  // namespace korvo::python
