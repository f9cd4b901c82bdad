#pragma once

#include <hxerror/mutex.h>
#include <libmw/log.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>

namespace mw::log {

/// Keeps one cause, which is a place in the code, from filling the disk: it may write so many lines a second; of the
/// others only the number is told, with its next line or when somebody asks for it.
///
/// @par Threads  Any.
class LineLimit {
 public:
  static constexpr std::size_t kLinesASecond = 100;

  /// That of the process. What it has left to tell is told at the end of the process at the latest.
  static LineLimit& instance();

  /// Whether a record may become a line. May write the number of those that might not.
  bool admits(const LogRecord& record);
  /// Writes the numbers of the seconds that are over.
  void tellWhatWasLeftOut();

 private:
  using Clock = std::chrono::steady_clock;
  /// Level, category, function.
  using Cause = std::tuple<LogLevel, std::string, std::string>;
  struct Second {
    Clock::time_point begin;
    std::size_t lines = 0;
    std::uint64_t leftOut = 0;
  };

  LineLimit() = default;
  void tell(bool all);
  static std::string lineOf(const Cause& cause, const Second& second);

  HX::Mutex mutex_;
  std::map<Cause, Second> seconds_ HX_GUARDED_BY(mutex_);
};

}  // namespace mw::log
