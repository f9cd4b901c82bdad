#pragma once

#include <hxerror/api.h>

#include <array>
#include <cstddef>
#include <utility>

namespace mw {

/// A file of the system, closed when it goes, and in processes that this one forks.
class HX_API File {
 public:
  File() = default;
  /// @param number  Its descriptor, which is this object's from now on; below 0 for none.
  explicit File(int number) noexcept;
  File(File&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  File& operator=(File&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~File();

  int number() const noexcept { return number_; }
  explicit operator bool() const noexcept { return number_ >= 0; }

 private:
  int number_ = -1;
};

/// By what a file is handed from one process to another: 16 random bytes, which nobody guesses. Good once, and for ten
/// seconds.
using Ticket = std::array<std::byte, 16>;

}  // namespace mw
