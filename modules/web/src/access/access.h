#pragma once

#include "http/request.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HX::web {

/// What whoever asks may do.
enum class Right : std::uint8_t { None, View, Write };

/// Who is let in.
struct AccessOptions {
  std::string address = "127.0.0.1";  ///< At which it listens.
  std::uint16_t port = 0;
  bool isTls = false;
  std::vector<std::string> hosts;           ///< Further names that it goes by, without a port.
  std::vector<std::string> allowedOrigins;  ///< Of viewers that run in a browser: "https://viewer.example".
  bool allowWrite = false;
  std::string viewToken;   ///< Empty: whoever reaches the port may look.
  std::string writeToken;  ///< Empty: nobody may write.

  /// Whether an address is this machine's own.
  static bool isLoopback(std::string_view address);
};

/// 128 random bits as 32 digits.
std::string makeToken();

/// The one gate that every request and every WebSocket passes.
///
/// A page of somebody else's in the same browser can send requests here, and a name of his can be made to mean this
/// machine: so a request must name this server by a name that it has, and if it says which page sends it, that must be
/// ours. What comes through is then as good as its token.
///
/// @par Threads  One at a time.
class Access {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Access(AccessOptions options, std::function<Clock::time_point()> now = Clock::now);

  /// Where a request comes from.
  /// @return The refusal, none when it may come in.
  std::optional<Response> refuse(const Request& request) const;
  /// What a request may do that was not refused, by its cookie, by "Authorization: Bearer", or by "?token=".
  /// @return None also when its sender was wrong too often.
  Right rightOf(const Request& request);
  /// Trades the token in the body of a request for a cookie, so that it stands in no address.
  Response trade(const Request& request);
  /// The refusal for who lacks a right.
  Response lacking(Right right) const;

  const AccessOptions& options() const { return options_; }
  /// "http://127.0.0.1:8765"
  std::string address() const;

 private:
  /// So many wrong tokens of an address are looked at, and then one a second.
  static constexpr double kGuesses = 10;
  static constexpr std::size_t kRemembered = 1024;
  struct Guesses {
    double left = kGuesses;
    Clock::time_point at;
  };

  Right rightOfToken(std::string_view token) const;
  Right weigh(std::string_view token, const std::string& remote);
  Guesses& guessesOf(const std::string& remote);
  std::string cookieName() const;

  const AccessOptions options_;
  const std::function<Clock::time_point()> now_;
  std::vector<std::string> hosts_;    // As in the header, in small letters.
  std::vector<std::string> origins_;  // As in the header, in small letters.
  std::map<std::string, Guesses> guesses_;
};

}  // namespace HX::web
