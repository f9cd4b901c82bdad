#pragma once

#include <stdexcept>

namespace HX::recording {

/// A file cannot be used as a recording, or not written: one line that names what is at fault.
class RecordingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace HX::recording
