#include "output.h"

#include "format.h"

#include <ostream>
#include <utility>

namespace korvo {

Output::Output(std::ostream& values, std::ostream& errors) : values_(values), errors_(errors) {}

void Output::line(std::string_view text) { print(values_, std::string(text) + '\n'); }

void Output::bytes(std::string_view text) { print(values_, std::string(text)); }

void Output::error(std::string_view message) { print(errors_, "error: " + escapeControls(message) + '\n'); }

void Output::note(std::string_view message) { print(errors_, escapeControls(message) + '\n'); }

void Output::print(std::ostream& stream, const std::string& text) {
  const std::lock_guard lock(mutex_);
  if (arrived_) {
    held_ += text;
    arrived_();
    return;
  }
  stream << text << std::flush;
  if (!values_) works_ = false;
  // A full standard error must not silence what may be read again later.
  errors_.clear();
}

void Output::status(std::string_view text) {
  const std::lock_guard lock(mutex_);
  if (showsStatus_) errors_ << '\r' << text << "\x1b[K" << std::flush;
}

bool Output::works() const {
  const std::lock_guard lock(mutex_);
  return works_;
}

void Output::hold(std::function<void()> arrived) {
  const std::lock_guard lock(mutex_);
  arrived_ = std::move(arrived);
}

bool Output::writeHeld() {
  const std::lock_guard lock(mutex_);
  if (held_.empty()) return false;
  const std::string_view clearLine = "\r\x1b[K";
  values_ << clearLine << std::exchange(held_, {}) << std::flush;
  return true;
}

void Output::release() {
  writeHeld();
  const std::lock_guard lock(mutex_);
  values_ << std::exchange(held_, {}) << std::flush;
  arrived_ = nullptr;
}

}  // namespace korvo
