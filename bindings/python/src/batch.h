#pragma once

#include <libmw/batch.h>

#include <cstdint>
#include <memory>

namespace korvo::python {

/// What the calling thread starts leaves in one go: `mw::Batch`, from `begin` to `end`. It counts for one thread, and
/// Python may drop it on any.
class NativeBatch {
 public:
  NativeBatch() = default;
  NativeBatch(const NativeBatch&) = delete;
  NativeBatch& operator=(const NativeBatch&) = delete;
  /// Where another thread drops what has not ended, it is left to its own, which holds what it sends for a moment.
  ~NativeBatch();

  /// @throws std::runtime_error when it has begun already.
  void begin();
  /// Sends what has collected.
  /// @throws std::runtime_error on another thread than the one that began it; also when it has not begun.
  void flush();
  /// As `flush`, and what the thread sends from now on leaves at once. May be repeated.
  void end();

 private:
  void requireOwn() const;

  std::unique_ptr<mw::Batch> batch_;
  std::uint64_t owner_ = 0;  // The thread that began it.
};

}  // namespace korvo::python
