#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace HX {

/// What the window on the robot is set to.
struct WebOptions {
  std::string bind = "127.0.0.1";
  std::uint16_t port = 8765;  ///< 0: any that is free.
  std::vector<std::string> hosts;
  std::vector<std::string> allowedOrigins;
  std::vector<std::string> metrics;  ///< Patterns of keys that are told as gauges.
  bool allowWrite = false;
  std::string viewToken;    ///< Empty: made up, where one is needed.
  std::string writeToken;   ///< As `viewToken`.
  std::string certificate;  ///< File in PEM; with `key`. Empty: no TLS.
  std::string key;

  /// As the environment says it, KORVO_WEB_PORT and so on; lists are separated by commas.
  /// @param variable  The value of a variable, empty when there is none.
  /// @throws std::runtime_error naming the variable that is wrong.
  static WebOptions from(const std::function<std::string(const std::string& name)>& variable);
  /// @throws std::runtime_error for what contradicts itself, or would let in more than is meant.
  void check() const;
  /// Whether only those may look who know a token.
  bool needsToken() const;
};

}  // namespace HX
