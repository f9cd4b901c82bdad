#pragma once

#include <libmw/local.h>
#include <libmw/session.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace mw {

/// A folder for sockets of the test's own.
class SocketFolder {
 public:
  SocketFolder() {
    std::string pattern = "/tmp/korvo_test.XXXXXX";
    path_ = ::mkdtemp(pattern.data());
    ::setenv("XDG_RUNTIME_DIR", path_.c_str(), 1);
  }
  SocketFolder(const SocketFolder&) = delete;
  SocketFolder& operator=(const SocketFolder&) = delete;
  ~SocketFolder() { std::filesystem::remove_all(path_); }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
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
