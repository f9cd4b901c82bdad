#pragma once

#include "socket_folder.h"

#include <libmw/local.h>
#include <libmw/session.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace mw {

inline AnyObject lookUp(Session& session, const std::string& name) { return session.service(name).take(); }

/// A broker's session and another that has joined it, by a socket.
class JoinedSessions : public testing::Test {
 protected:
  /// What came by the connection has to go with it.
  void TearDown() override {
    joined.reset();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!isAlone() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    EXPECT_TRUE(isAlone()) << testing::PrintToString(namesOf(broker)) << " are left";
  }

  static std::vector<std::string> namesOf(const Session& session) {
    std::vector<std::string> names;
    for (const ServiceInfo& service : session.services()) names.push_back(service.name);
    return names;
  }

  bool isAlone() const {
    const auto isLeft = [&](const std::string& name) { return static_cast<bool>(broker.ownService(name)); };
    return (!server || server->connectionCount() == 0) && std::ranges::none_of(namesOf(client), isLeft);
  }

  kit::SocketFolder folder;
  Session broker;
  std::optional<LocalServer> server{std::in_place, broker, "torso"};
  Session client;
  std::optional<LocalClient> joined{std::in_place, client, "torso"};
};

}  // namespace mw
