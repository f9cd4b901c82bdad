#pragma once

#include <hxerror/api.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// Sessions of several processes of one machine and one user, joined by Unix-domain sockets.
///
/// A process *serves* its session under the name of its broker; others *join* it. Whoever has joined finds the broker's
/// services and those of everybody else who joined, offers its own to all of them, and is told of those that come and
/// go. Objects, signals, futures and errors cross: `Session::service` hands out a handle that is used like one of this
/// process.
namespace mw {

class Session;

/// Limits and intervals of one side of a connection. What exceeds a limit ends that connection alone, with a line in
/// the log (category "mw.link", warning) that says why.
struct LinkOptions {
  /// A peer of which nothing was heard for three of these has gone, be it dead, frozen or unplugged.
  std::chrono::milliseconds heartbeat{1000};
  /// Bytes of one message.
  std::size_t frameLimit = std::size_t{64} << 20;
  /// Values in one message, lists and what is in them: a byte on the wire can be a value of sixty-four bytes here.
  std::size_t valueLimit = std::size_t{4} << 20;
  /// Lists and maps inside one another, the message's own list included.
  std::size_t depthLimit = 256;
  /// Bytes that wait because the peer does not read.
  std::size_t outputLimit = std::size_t{128} << 20;
  /// Bytes of calls that wait because the peer makes them faster than they are served.
  std::size_t inputLimit = std::size_t{128} << 20;
  /// Bytes that all connections of the process hold together of messages that are not whole yet and calls that wait.
  /// Beyond it the process that holds most loses the connection by which it does: who holds no more than an equal part
  /// never pays for others.
  std::size_t inputOfAll = std::size_t{512} << 20;
  /// Likewise of what waits because it is not read. Enough for a value of the largest size to sixteen who read.
  std::size_t outputOfAll = std::size_t{1} << 30;
  /// Calls of the peer that run at once, each of another caller or to another object; more get an error. All threads
  /// are not for one peer: others need some, and so does the end of the process.
  std::size_t callLimit = 32;
  /// Connections that one server holds at once.
  std::size_t connectionLimit = 1024;
  /// Of these, how many one process may have.
  std::size_t connectionsOfAProcess = 256;
  /// Of these, how many are kept for processes of the server's own program: `korvo run` lets in the commands of `korvo`
  /// when everybody else is too many.
  std::size_t connectionsKept = 16;
};

/// There is no broker of that name to join.
class HX_API NoBrokerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  NoBrokerError(const NoBrokerError&) = default;
  NoBrokerError& operator=(const NoBrokerError&) = default;
  ~NoBrokerError() override;
};

/// The folder that holds the sockets of this user's brokers: `$XDG_RUNTIME_DIR/korvo`, or without that variable a
/// folder of the user's own below the temporary one. Made, for the user alone, when it is not there.
/// @throws std::runtime_error when it is not a folder that belongs to the user, with no rights for others.
HX_API std::string localSocketFolder();

/// Whether a broker that others join can have this name: ASCII letters, digits, '-', '_' and '.', no dot first, and so
/// few that the path of its socket in `localSocketFolder`, which need not be there, has no more than 107 bytes.
HX_API bool isBrokerName(std::string_view name);
/// Why not: its characters, or the path of its socket, which is then shown. Empty for a name that can be one.
HX_API std::string whyNoBrokerName(std::string_view name);

/// The names of this user's brokers that are running, sorted.
HX_API std::vector<std::string> runningBrokers();

/// What a running broker says of itself in its lock file.
struct RunningBroker {
  std::string name;
  int process = 0;                              ///< Its id; 0 for a broker that is only just starting.
  std::chrono::system_clock::time_point since;  ///< When it took its name.
  std::string version;                          ///< Of libmw, as "0.1.0"; empty for one that is only just starting.
};
/// Tells more than `runningBrokers`. Asks no broker, so that one that hangs is told too.
HX_API std::vector<RunningBroker> describeRunningBrokers();

/// What this process is called by those it is connected to, behind its number: "process 4711, korvo set". The name of
/// its program unless stated; counts for connections that are made afterwards.
/// @param name  A few words.
HX_API void setProgramName(std::string name);

/// When a server lets peers in.
enum class Listening : bool {
  Now,
  Later,  ///< Once `LocalServer::listen` is called; the name is taken from the beginning.
};

/// Serves a session: while it lives, processes of the same user may join under `name`.
///
/// @par Threads  Any.
class HX_API LocalServer {
 public:
  /// @param session  Its services are what others find; theirs are registered with it. Must outlive the server.
  /// @param name     As `HXBroker::getName`.
  /// @param options  Limits and times of each connection.
  /// @param listening  Whether others are let in at once.
  /// @throws std::runtime_error when it is no `isBrokerName`, when a broker of that name is running, or when the
  ///         socket cannot be made.
  LocalServer(Session& session, const std::string& name, const LinkOptions& options = {},
              Listening listening = Listening::Now);
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;
  /// Ends every connection and withdraws the services that came by them.
  ~LocalServer();

  /// Lets peers in, once, where that was left for later.
  /// @throws std::runtime_error when the socket cannot be made.
  void listen();

  /// How many peers are connected. For diagnosis.
  std::size_t connectionCount() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

/// Joins the session of a broker.
///
/// When the connection is lost, the session tells so (`Session::connectionLost`), calls fail, and the client tries
/// again with growing pauses, up to two seconds. Once it is back, it offers the services of its session again, handles
/// on services that it finds again work again with their signal connections, which need nobody who holds the handle,
/// and the session tells that too (`Session::connectionRestored`). In between it tells of every service of the broker
/// that it went (`Session::serviceUnregistered`) and, of those that are there again, that they came. What else the
/// broker knew of this process, its subscriptions in the memory for instance, went with the connection: state it anew
/// then.
///
/// @par Threads  Any.
class HX_API LocalClient {
 public:
  struct Options {
    LinkOptions link{.callLimit = 96};  ///< More at once than from one process: a broker calls for all others.
    bool reconnects = true;             ///< False: a lost connection stays lost.
  };

  /// Connects, once.
  /// @param session  Must outlive the client. It is joined to one broker at a time.
  /// @param broker   Name of the broker; empty for the only one that is running.
  /// @throws NoBrokerError when it is not running, or when `broker` is empty and there is not exactly one;
  ///         std::runtime_error when it refuses, or when a service of `session` has a name that is taken there.
  LocalClient(Session& session, const std::string& broker);
  LocalClient(Session& session, const std::string& broker, const Options& options);
  LocalClient(const LocalClient&) = delete;
  LocalClient& operator=(const LocalClient&) = delete;
  ~LocalClient();

  /// The name of the broker.
  const std::string& broker() const;
  bool isConnected() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace mw
