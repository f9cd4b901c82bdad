#pragma once

#include <hxerror/api.h>
#include <libmw/clock.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace mw {

/// How grave a record is. The numbers are part of the interface; smaller is graver.
enum class LogLevel { Silent = 0, Fatal = 1, Error = 2, Warning = 3, Info = 4, Verbose = 5, Debug = 6 };

/// The level as one lower-case word ("warning").
HX_API std::string_view toString(LogLevel level) noexcept;

/// One thing that was logged. The views are valid during the call that hands the record over; copy to keep.
struct LogRecord {
  LogLevel level;
  std::string_view category;
  std::string_view function;  ///< Where it happened, in the words of whoever logged it.
  std::string_view text;      ///< As given: may hold line ends and control characters.
  SystemTimePoint time;
};

/// The log: records go by category and level to standard error and to whatever sinks the process adds.
///
/// It works before main() and until the process has ended: the tables behind it are never destroyed. Everything
/// here is safe from any thread. Nothing here throws for want of a listener: a sink's exception is swallowed, and a
/// standard error that is closed, or a pipe nobody reads, loses the line and nothing else.
namespace log {

/// A name that records are filed under, and the level up to which they are visible.
///
/// Handles come from addCategory() and stay valid for the life of the process.
class HX_API Category {
 public:
  explicit Category(std::string name, LogLevel level) : name_(std::move(name)), level_(level) {}
  Category(const Category&) = delete;
  Category& operator=(const Category&) = delete;

  const std::string& name() const noexcept { return name_; }
  LogLevel level() const noexcept { return level_.load(std::memory_order_relaxed); }
  void setLevel(LogLevel level) noexcept { level_.store(level, std::memory_order_relaxed); }

 private:
  const std::string name_;
  std::atomic<LogLevel> level_;
};

/// The category called `name`, made with the level that setLevel() decided for such names, or Info.
HX_API Category& addCategory(std::string_view name);

/// Sets the level of the categories that match `pattern`, those made later included. The latest match decides.
///
/// @param level    Records up to this level are visible; Silent hides all.
/// @param pattern  Shell pattern: `*` any text, `?` one character, `[…]` one of a set.
HX_API void setLevel(LogLevel level, std::string_view pattern = "*");

/// Whether a record would reach the sinks. With a handle this is one relaxed load; with a name, a look-up.
inline bool isVisible(const Category& category, LogLevel level) noexcept {
  return level != LogLevel::Silent && level <= category.level();
}
HX_API bool isVisible(std::string_view category, LogLevel level);

/// Hands a record to the sinks, on this thread, when its category shows its level.
///
/// No lock of the middleware is held while sinks run. Where the thread holds one (it runs a subscriber of an event, or
/// a method of an object that takes one call at a time), the record is handed over in its order by the event loop, or
/// by this thread when it has left the lock: sinks do not get it where the process ends before that. A sink that logs
/// does not meet its own records.
HX_API void write(LogLevel level, const Category& category, std::string_view function, std::string_view text);
HX_API void write(LogLevel level, std::string_view category, std::string_view function, std::string_view text);

inline void fatal(std::string_view category, std::string_view function, std::string_view text) {
  write(LogLevel::Fatal, category, function, text);
}
inline void error(std::string_view category, std::string_view function, std::string_view text) {
  write(LogLevel::Error, category, function, text);
}
inline void warning(std::string_view category, std::string_view function, std::string_view text) {
  write(LogLevel::Warning, category, function, text);
}
inline void info(std::string_view category, std::string_view function, std::string_view text) {
  write(LogLevel::Info, category, function, text);
}
inline void verbose(std::string_view category, std::string_view function, std::string_view text) {
  write(LogLevel::Verbose, category, function, text);
}
inline void debug(std::string_view category, std::string_view function, std::string_view text) {
  write(LogLevel::Debug, category, function, text);
}

/// Receives every visible record, on the thread that logged it or, as `write` says, on another; may run on many threads
/// at once.
using Sink = std::function<void(const LogRecord&)>;
using SinkId = std::uint64_t;

/// Adds a receiver of records. @return Its id, never 0.
HX_API SinkId addSink(Sink sink);

/// Removes a sink and waits until it runs nowhere any more, except in the calls that the calling thread itself is
/// inside of, so that a sink may remove itself. Unknown ids are ignored.
HX_API void removeSink(SinkId id);

/// Turns the lines on standard error on (as at start) or off.
///
/// A record is one line, `[LEVEL] CATEGORY FUNCTION: TEXT`; line ends and control characters are escaped, and the
/// middle of a text beyond some 2000 bytes is left out. Of one level, category and function at most 100 lines are
/// written in a second, `Verbose` and `Debug` excepted; then one that tells how many more there were. Sinks get every
/// record whole.
///
/// @return Whether they were on before.
HX_API bool setStderrSink(bool enabled) noexcept;

}  // namespace log
}  // namespace mw

/// Logs `text` under the name of the enclosing function. `text` is evaluated only when the record is visible.
///
/// @param level     Name of a LogLevel: HX_LOG(Warning, …).
/// @param category  A log::Category, which is cheapest, or a name.
/// @param text      One line.
#define HX_LOG(level, category, text) HX_LOG_AS(level, category, __func__, text)

/// HX_LOG with the function name stated, for records whose wording is relied on.
#define HX_LOG_AS(level, category, function, text)                           \
  do {                                                                       \
    if (::mw::log::isVisible((category), ::mw::LogLevel::level))             \
      ::mw::log::write(::mw::LogLevel::level, (category), (function), text); \
  } while (false)
