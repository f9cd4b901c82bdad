#include "linesource.h"

#include "base/event.h"
#include "commands/arguments.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace korvo {

std::optional<std::string> FileLines::next() {
  while (true) {
    if (auto line = takeLine()) {
      const bool cut = std::exchange(tooLong_, false) || line->size() > longest_;
      if (cut) throw InputError(fmt::format("a line is longer than {} bytes", longest_));
      return line;
    }
    if (ended_ || !readMore()) return std::nullopt;
  }
}

std::optional<std::string> FileLines::takeLine() {
  const std::size_t end = buffer_.find('\n', searched_);
  if (end == std::string::npos) {
    searched_ = buffer_.size();
    if (!ended_ || (begin_ == buffer_.size() && !tooLong_)) return std::nullopt;
    return buffer_.substr(std::exchange(begin_, buffer_.size()));
  }
  auto line = buffer_.substr(begin_, end - begin_);
  begin_ = searched_ = end + 1;
  return line;
}

bool FileLines::readMore() {
  buffer_.erase(0, begin_);
  begin_ = 0;
  if (buffer_.size() > longest_) {
    buffer_.clear();
    tooLong_ = true;
  }
  searched_ = buffer_.size();
  if (waitReadable({stop_, file_}) == 0) return false;
  std::array<char, 65536> chunk;  // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
  const ssize_t count = read(file_, chunk.data(), chunk.size());
  if (count > 0) {
    buffer_.append(chunk.data(), static_cast<std::size_t>(count));
  } else if (count == 0) {
    ended_ = true;
  } else if (const int error = errno; error != EAGAIN && error != EINTR) {
    ended_ = true;
    throw std::system_error(error, std::generic_category(), "reading failed");
  }
  return true;
}

}  // namespace korvo
