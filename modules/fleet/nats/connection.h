#pragma once

#include "line.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <nats/nats.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace HX::fleet {

/// The server cannot be reached, or does not answer in time.
class AwayError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
/// The server was reached and will not have us: rights, certificates, names.
class RefusedError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
/// Nobody is there whom a request could reach.
class NobodyError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whether that is said of a server that will not have us.
bool tellsRefusal(const std::string& text);

/// How a server is reached.
struct Access {
  std::vector<std::string> servers;  ///< "tls://hub.example:4222", each tried in any order until one is there.
  std::string authority;             ///< File of the certificate that theirs are signed with; empty: the system's.
  std::string seed;                  ///< File with the seed of our key; empty for servers that ask for none.
  bool insecure = false;             ///< Plain connections may leave this machine.
};
/// @throws std::runtime_error naming a server that is none, a plain one beyond this machine, and a file of a seed that
///         others can read.
void check(const Access& access);

/// A message that arrived.
class Message {
 public:
  explicit Message(natsMsg* message) : message_(message, &natsMsg_Destroy) {}

  std::string_view subject() const { return natsMsg_GetSubject(message_.get()); }
  /// Empty when no answer is wanted.
  std::string reply() const;
  std::string_view data() const;
  /// Empty when there is none.
  std::string header(const char* name) const;
  /// The number that answers of the server itself begin with, 503 for nobody there; 0 for all others.
  int status() const;

 private:
  std::unique_ptr<natsMsg, decltype(&natsMsg_Destroy)> message_;
};

/// A message to be sent.
struct Letter {
  std::string subject;
  std::string data;
  std::string reply = {};
  std::vector<std::pair<const char*, std::string>> headers = {};
};

/// A connection to a server: it ends once, and is then made anew by whoever needs it, since a library that reconnects
/// by itself gives up for good when it is refused once.
///
/// No function waits much longer than its limit, also for a server that has frozen.
///
/// @par Threads  All are safe from any. Handlers run on a thread of the library, one subscription's in order; they must
/// not wait, and must not destroy the connection.
class Connection {
 public:
  using Handler = std::function<void(Message)>;
  struct Options {
    std::string name;                  ///< For whoever looks at the server.
    std::string inbox = "_INBOX";      ///< Prefix of the subjects of answers.
    bool isPrompt = false;             ///< Sends at once, rather than together with what follows within a millisecond.
    std::function<void()> onEnd = {};  ///< On a thread of the library, once.
    std::string first = {};            ///< The one of the servers that is tried before the others.
    /// What the server said of something that we have no right to. On a thread of the library.
    std::function<void(const std::string& text)> onRefusal = {};
    /// Between two signs of life that the server is asked for; it counts as frozen when it still owes one by then.
    std::chrono::milliseconds pingGap = std::chrono::seconds(5);
  };

  /// @throws AwayError, RefusedError.
  Connection(const Access& access, const Options& options);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  /// Waits for handlers.
  ~Connection();

  /// Ends it early. What is waited for by it fails.
  void close() { natsConnection_Close(connection_); }
  bool isOpen() const { return !natsConnection_IsClosed(connection_); }
  std::string server() const;
  /// The one of `Access::servers` that it is.
  const std::string& chosen() const { return chosen_; }
  /// Whether the line seems to be cut, without being known to be: see `Line`.
  bool isStalled() const { return line_ && line_->isStalled(); }
  /// Why something was refused last, or why it ended.
  std::string lastError() const;
  std::size_t largestMessage() const;
  /// Prefix of subjects that nobody else uses, for answers.
  const std::string& inbox() const { return inbox_; }

  /// @throws AwayError when it has ended.
  void publish(const std::string& subject, std::string_view data);
  void publish(const Letter& letter);
  /// Returns once the server has all that was published.
  /// @throws AwayError when it does not say so in time.
  void flush(std::chrono::milliseconds limit);
  /// @throws NobodyError; AwayError when there is no answer in time.
  Message request(const Letter& letter, std::chrono::milliseconds limit);
  /// What `subscribe` has begun, for `unsubscribe`.
  using SubscriptionId = natsSubscription*;
  /// @param subject  May have wildcards.
  SubscriptionId subscribe(const std::string& subject, Handler handler);
  /// A handler that runs already may still do so when this returns.
  void unsubscribe(SubscriptionId subscription);

  /// For what the library has beyond this.
  natsConnection* raw() const { return connection_; }

 private:
  struct Subscription;
  struct Shared;
  void logIn(const Access& access, const std::string& server, const Options& options);
  void connect(const Access& access, const std::string& server, const Options& options);
  static void onClosed(natsConnection* connection, void* closure);
  static void onError(natsConnection* connection, natsSubscription* subscription, natsStatus error, void* closure);
  static void onMessage(natsConnection* connection, natsSubscription* subscription, natsMsg* message, void* closure);
  static void onComplete(void* closure);

  const std::string inbox_;
  std::shared_ptr<Shared> shared_;
  natsConnection* connection_ = nullptr;
  std::string chosen_;
  std::optional<Line> line_;
  mutable std::mutex mutex_;  // Guards `subscriptions_`.
  std::vector<natsSubscription*> subscriptions_;
};

/// Listens for as long as it lives.
class Listening {
 public:
  /// @param connection  Must outlive this object.
  Listening(Connection& connection, const std::string& subject, Connection::Handler handler)
      : connection_(connection), subscription_(connection.subscribe(subject, std::move(handler))) {}
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;
  ~Listening() { connection_.unsubscribe(subscription_); }

 private:
  Connection& connection_;
  const Connection::SubscriptionId subscription_;
};

}  // namespace HX::fleet
