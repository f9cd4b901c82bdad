#include "linelimit.h"

#include "logline.h"

#include <vector>

#include <fmt/format.h>

namespace mw::log {
namespace {

constexpr std::chrono::seconds kSecond{1};
/// Functions are named by code, of which there is only so much; and by whoever makes names up.
constexpr std::size_t kMostCauses = 1024;

}  // namespace

LineLimit& LineLimit::instance() {
  // Never destroyed: records are written until the process has ended.
  static auto* const the = new LineLimit;
  static const struct AtExit {
    ~AtExit() { the->tell(true); }
  } atExit;
  return *the;
}

bool LineLimit::admits(const LogRecord& record) {
  if (record.level > LogLevel::Info) return true;  // Somebody wants to see them.
  const Clock::time_point now = Clock::now();
  std::string line;
  {
    const HX::MutexLock lock(mutex_);
    if (seconds_.size() >= kMostCauses) seconds_.clear();
    const auto [entry, isNew] =
        seconds_.try_emplace({record.level, std::string(record.category), std::string(record.function)});
    Second& second = entry->second;
    if (isNew || now - second.begin >= kSecond) {
      if (second.leftOut > 0) line = lineOf(entry->first, second);
      second = {.begin = now};
    }
    if (++second.lines > kLinesASecond) {
      ++second.leftOut;
      return false;
    }
  }
  if (!line.empty()) writeStderr(line);
  return true;
}

void LineLimit::tellWhatWasLeftOut() { tell(false); }

void LineLimit::tell(bool all) {
  const Clock::time_point now = Clock::now();
  std::vector<std::string> lines;
  {
    const HX::MutexLock lock(mutex_);
    for (auto& [cause, second] : seconds_) {
      if (second.leftOut == 0 || (!all && now - second.begin < kSecond)) continue;
      lines.push_back(lineOf(cause, second));
      second = {};
    }
  }
  for (const std::string& line : lines) writeStderr(line);
}

std::string LineLimit::lineOf(const Cause& cause, const Second& second) {
  const auto& [level, category, function] = cause;
  const std::string text = fmt::format("{} more like these within a second", second.leftOut);
  return formatLine({level, category, function, text, {}});
}

}  // namespace mw::log
