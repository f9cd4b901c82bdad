#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace HX::fleet {

/// Finds out whether servers can be reached, by connections on which nothing is said.
///
/// An attempt of the library's waits two seconds for a server that is silent, and TCP repeats its question ever more
/// seldom; so a line that has come back would be noticed late. A knock is one small packet, and the next need not wait
/// for the answer to the one before.
///
/// @par Threads  One at a time.
class Knocking {
 public:
  using Clock = std::chrono::steady_clock;

  Knocking() = default;
  Knocking(const Knocking&) = delete;
  Knocking& operator=(const Knocking&) = delete;
  ~Knocking() { forget(); }

  /// Looks up where the servers are; those whose names nobody knows at present are where they were. Waits for the name
  /// service, which a line that is cut may take with it.
  void resolve(const std::vector<std::string>& servers);
  /// Whether it was looked up so long ago, or with so little success, that they may be elsewhere.
  bool isStale() const;
  /// Knocks at each address. What was knocked before may still be answered.
  void knock();
  /// Returns when a server has answered, be it that nothing listens there.
  /// @param isEnough  Asked now and then; true ends it.
  /// @return Which server, as it was given; none when none has within `limit`, or when it was enough. Where no address
  ///         is known the first server, since there is nothing to wait for.
  std::optional<std::string> await(std::chrono::milliseconds limit, const std::function<bool()>& isEnough);
  /// Leaves all that was knocked.
  void forget();

 private:
  struct Address {
    std::string server;
    sockaddr_storage storage;
    socklen_t size;
  };
  struct Knock {
    int socket;
    std::string server;
    Clock::time_point when;
  };
  std::optional<std::string> look(std::chrono::milliseconds limit);
  void leave(Knock& knock);

  std::vector<Address> addresses_;
  std::string first_;
  std::optional<Clock::time_point> resolved_;
  std::deque<Knock> knocks_;  // The oldest first.
};

}  // namespace HX::fleet
