#pragma once

#include <hxerror/api.h>

#include <utility>

namespace mw::local {

/// A file of the system, closed when it goes, and in processes that this one forks.
class HX_API File {
 public:
  File() = default;
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

}  // namespace mw::local
