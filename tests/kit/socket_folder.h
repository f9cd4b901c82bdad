#pragma once

#include "temporary_folder.h"

#include <cstdlib>
#include <string>

namespace kit {

/// A folder for the sockets of the test's own brokers: no other broker is seen or met. Programs that it starts inherit
/// it.
class SocketFolder {
 public:
  SocketFolder() { ::setenv("XDG_RUNTIME_DIR", path().c_str(), 1); }

  std::string path() const { return folder_.path(); }

 private:
  const TemporaryFolder folder_;
};

}  // namespace kit
