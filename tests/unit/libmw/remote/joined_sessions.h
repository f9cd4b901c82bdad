#pragma once

#include "socket_folder.h"

#include <libmw/local.h>
#include <libmw/session.h>

#include <optional>

#include <gtest/gtest.h>

namespace mw {

/// A broker's session and another that has joined it, by a socket.
class JoinedSessions : public testing::Test {
 protected:
  kit::SocketFolder folder;
  Session broker;
  std::optional<LocalServer> server{std::in_place, broker, "torso"};
  Session client;
  std::optional<LocalClient> joined{std::in_place, client, "torso"};
};

}  // namespace mw
