#pragma once

#include "temporary_folder.h"

#include <libmw/local.h>
#include <libmw/session.h>

#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace mw {

/// A folder for sockets of the test's own.
class SocketFolder {
 public:
  SocketFolder() { ::setenv("XDG_RUNTIME_DIR", path().c_str(), 1); }

  std::string path() const { return folder_.path(); }

 private:
  const kit::TemporaryFolder folder_;
};

/// A broker's session and another that has joined it, by a socket.
class JoinedSessions : public testing::Test {
 protected:
  SocketFolder folder;
  Session broker;
  std::optional<LocalServer> server{std::in_place, broker, "torso"};
  Session client;
  std::optional<LocalClient> joined{std::in_place, client, "torso"};
};

}  // namespace mw
