#pragma once

#include <hxcommon/settings.h>
#include <hxvalue/hxvalue.h>

#include <cstdint>
#include <string>
#include <vector>

namespace HX {

/// What the window on the robot is set to.
struct WebOptions {
  std::string bind = "127.0.0.1";
  std::uint16_t port = 8765;  ///< 0: any that is free.
  std::vector<std::string> hosts;
  std::vector<std::string> allowedOrigins;
  std::vector<std::string> metrics;     ///< Patterns of keys that are told as gauges.
  std::vector<std::string> parameters;  ///< Patterns of keys that viewers are offered as parameters.
  bool allowWrite = false;
  std::string viewToken;    ///< Empty: made up, where one is needed.
  std::string writeToken;   ///< As `viewToken`.
  std::string certificate;  ///< File in PEM; with `key`. Empty: no TLS.
  std::string key;

  /// What a module declares to be set to them.
  static std::vector<Setting> settings();
  /// @param values  Of all of `settings`, by their names.
  static WebOptions from(const HXValue& values);
  struct Problem {
    std::string setting;
    std::string text;
  };
  /// What contradicts itself, or would let in more than is meant.
  std::vector<Problem> problems() const;
  /// Whether only those may look who know a token.
  bool needsToken() const;
};

}  // namespace HX
