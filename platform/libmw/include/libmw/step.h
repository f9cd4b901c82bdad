#pragma once

#include <hxerror/api.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace mw {

/// Foreign code that somebody waits for and that should be over soon: the `init` of a module, say. What lasts longer
/// than five seconds is named in the log (category "mw.step", warning), and whoever gives up waiting can tell for what.
///
/// @par Threads  Any; a step ends on any thread.
class HX_API Step {
 public:
  /// @param what  Reads well in front of ": still running": "init of module Arm".
  explicit Step(std::string what);
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step();

  /// The steps of this process that have not ended, the oldest first.
  static std::vector<std::string> underWay();
  /// How long those that begin from now on may last before they are named; five seconds at first.
  static void setPatience(std::chrono::milliseconds patience);

 private:
  const std::shared_ptr<const std::string> what_;  ///< Alone in knowing it once the step is over.
};

}  // namespace mw
