#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>

#include <chrono>
#include <string>

namespace HX {

/// What a memory offers, in its process, to who brings back what an earlier memory had:
/// `broker->interfaceOf<DataRestorer>("HXMemory")`.
///
/// A value that is stored by a method is of the time at which that is done. What is brought back must not look newer
/// than it is.
///
/// @par Threads  Any.
class HX_API DataRestorer {
 public:
  using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

  virtual ~DataRestorer();

  /// Stores data under a name that there is not, and raises the bookkeeping event that goes with a new key.
  /// @param key          The name.
  /// @param value        Its value.
  /// @param description  Its description; empty for none.
  /// @param time         When the value was written.
  /// @return False when the key is there already: it is newer, and stays as it is.
  /// @throws HXError when the name is longer than a key may be.
  virtual bool restoreData(const std::string& key, const HXValue& value, const std::string& description,
                           TimePoint time) = 0;
};

}  // namespace HX
