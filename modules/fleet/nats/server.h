#pragma once

#include <string>

namespace HX::fleet {

/// What the address of a server says: "tls://user@hub.example:4222".
struct Server {
  explicit Server(const std::string& url);
  bool isOfThisMachine() const { return host == "localhost" || host == "::1" || host.starts_with("127."); }

  std::string scheme = "nats";
  std::string host;
  std::string port = "4222";
};

}  // namespace HX::fleet
