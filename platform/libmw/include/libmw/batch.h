#pragma once

#include <hxerror/api.h>

#include <memory>

namespace mw {

/// While one lives, what the calling thread sends to other processes leaves in one go: calls made with `async`, posts,
/// emissions. Without one, each leaves when it is made, which costs a call of the system, and wakes its receiver, for
/// each.
///
///     {
///       const mw::Batch batch;
///       for (const auto& [key, value] : values) answers.push_back(memory->async("insertData", key, value));
///     }
///     mw::waitForAll(answers);
///
/// What has collected leaves at the end of the scope; before that, when the thread waits for a future or calls and
/// waits for the answer, when `flush` says so, when a connection has 256 KiB of it, and two milliseconds after the
/// first of it at the latest. So nothing waits for what its own sender waits for, and a scope that lasts delays what is
/// sent in it by two milliseconds, not more. Scopes may stand inside one another, and end in any order: each sends at
/// its end what was collected in it.
///
/// A batch orders nothing: what goes to one receiver keeps its order with and without one.
///
/// @par Threads  Counts for the thread that makes it, which also ends it.
class HX_API Batch {
 public:
  Batch();
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch();

  /// Sends what has collected.
  void flush();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace mw
