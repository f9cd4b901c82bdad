#include "connection.h"

#include "nkey.h"
#include "server.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;

constexpr int kTimeout = 2000;        // For connecting, milliseconds.
constexpr int kWriteDeadline = 1000;  // A server that has frozen must hold nobody up for longer.
constexpr int kLogins = 3;            // Until a key counts as refused.
constexpr auto kFarewell = 5s;        // For handlers, and for the library to let go.

void checkServer(const std::string& url, bool insecure) {
  const Server server(url);
  const bool isKnown = server.scheme == "nats" || server.scheme == "tls";
  if (!isKnown || server.host.empty() || url.find_first_of(", \t") != std::string::npos) {
    throw std::runtime_error(fmt::format("{} is no server: write tls://HOST:PORT or nats://HOST:PORT", url));
  }
  if (server.scheme == "nats" && !server.isOfThisMachine() && !insecure) {
    throw std::runtime_error(fmt::format(
        "{} would be reached in plain text: write tls://, or set insecure for a network that is trusted", url));
  }
}

void checkSeed(const std::string& file) {
  struct stat status {};
  if (::stat(file.c_str(), &status) != 0) throw std::runtime_error(fmt::format("there is no file {}", file));
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw std::runtime_error(fmt::format("{} is secret and others can use it: chmod 600 {}", file, file));
  }
}

/// What a server knows the owner of a seed by.
std::string publicKeyOf(const std::string& file) {
  std::string seed;
  std::ifstream(file) >> seed;
  try {
    return userKeyOf(seed).publicKey;
  } catch (const std::exception& error) {
    throw RefusedError(fmt::format("{}: {}", file, error.what()));
  }
}

/// What the library says of a failure, in one line.
std::string explain(natsStatus status) {
  natsStatus last = status;
  const char* const detail = nats_GetLastError(&last);
  std::string text = detail && *detail && last == status ? detail : natsStatus_GetText(status);
  std::ranges::replace(text, '\n', ' ');
  // Where in the library it was noticed says nothing to our readers.
  const auto place = text.starts_with('(') ? text.find("): ") : std::string::npos;
  return place == std::string::npos ? text : text.substr(place + 3);
}

bool isRefusal(natsStatus status) {
  return status == NATS_CONNECTION_AUTH_FAILED || status == NATS_SSL_ERROR || status == NATS_NOT_PERMITTED ||
         status == NATS_SECURE_CONNECTION_WANTED || status == NATS_SECURE_CONNECTION_REQUIRED;
}

[[noreturn]] void fail(natsStatus status, const std::string& what) {
  const std::string text = explain(status);
  if (status == NATS_NO_RESPONDERS) throw NobodyError(fmt::format("{}: nobody is there", what));
  if (isRefusal(status) || tellsRefusal(text)) throw RefusedError(fmt::format("{}: {}", what, text));
  throw AwayError(fmt::format("{}: {}", what, text));
}

void require(natsStatus status, const std::string& what) {
  if (status != NATS_OK) fail(status, what);
}

using OptionsPointer = std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)>;

void applyTls(natsOptions* raw, const Access& access, const Server& server) {
  if (server.scheme != "tls") return;
  require(natsOptions_SetSecure(raw, true), "TLS");
  if (!access.authority.empty()) {
    require(natsOptions_LoadCATrustedCertificates(raw, access.authority.c_str()), access.authority);
  }
  // Otherwise any certificate of the authority would do, another robot's too.
  require(natsOptions_SetExpectedHostname(raw, server.host.c_str()), "TLS");
}

/// @param server  The one to be connected to. The library knows of no other: each has a name of its own for its
///                certificate, and of several that fail the library would not say why.
OptionsPointer optionsOf(const Access& access, const std::string& server, const Connection::Options& options) {
  natsOptions* raw = nullptr;
  require(natsOptions_Create(&raw), "options");
  OptionsPointer owned(raw, &natsOptions_Destroy);
  require(natsOptions_SetURL(raw, server.c_str()), server);
  require(natsOptions_SetName(raw, options.name.c_str()), "name");
  require(natsOptions_SetTimeout(raw, kTimeout), "options");
  require(natsOptions_SetWriteDeadline(raw, kWriteDeadline), "options");
  require(natsOptions_SetAllowReconnect(raw, false), "options");
  require(natsOptions_SetPingInterval(raw, options.pingGap.count()), "options");
  require(natsOptions_SetMaxPingsOut(raw, 1), "options");
  require(natsOptions_UseGlobalMessageDelivery(raw, true), "options");
  require(natsOptions_SetMaxPendingMsgs(raw, 1 << 20), "options");
  require(natsOptions_SetSendAsap(raw, options.isPrompt), "options");
  require(natsOptions_SetCustomInboxPrefix(raw, options.inbox.c_str()), options.inbox);
  if (!access.seed.empty()) {
    const std::string key = publicKeyOf(access.seed);
    require(natsOptions_SetNKeyFromSeed(raw, key.c_str(), access.seed.c_str()), access.seed);
  }
  applyTls(raw, access, Server(server));
  return owned;
}

}  // namespace

bool tellsRefusal(const std::string& text) {
  // The library tells a failed handshake and a refused user apart only in words. The last is what it says when the
  // server hangs up at the login before its reason is read.
  constexpr std::string_view kWords[] = {"uthorization", "uthentication", "certificate",    "SSL",
                                         "TLS",          "ermission",     "Expected 'PONG'"};
  return std::ranges::any_of(kWords, [&](auto word) { return text.find(word) != std::string::npos; });
}

void check(const Access& access) {
  if (access.servers.empty()) throw std::runtime_error("no server is named");
  for (const std::string& server : access.servers) checkServer(server, access.insecure);
  if (!access.authority.empty() && ::access(access.authority.c_str(), R_OK) != 0) {
    throw std::runtime_error(fmt::format("{} is not there, or cannot be read", access.authority));
  }
  if (!access.seed.empty()) checkSeed(access.seed);
}

std::string Message::reply() const {
  const char* const reply = natsMsg_GetReply(message_.get());
  return reply ? reply : "";
}

std::string_view Message::data() const {
  return {natsMsg_GetData(message_.get()), static_cast<std::size_t>(natsMsg_GetDataLength(message_.get()))};
}

std::string Message::header(const char* name) const {
  const char* value = nullptr;
  return natsMsgHeader_Get(message_.get(), name, &value) == NATS_OK && value ? value : "";
}

int Message::status() const {
  if (natsMsg_GetDataLength(message_.get()) > 0) return 0;
  if (natsMsg_IsNoResponders(message_.get())) return 503;
  const std::string text = header("Status");
  return text.empty() ? 0 : std::atoi(text.c_str());
}

/// What the library's callbacks use, which come after the connection has gone too.
struct Connection::Shared {
  std::mutex mutex;  // Guards all below.
  std::condition_variable changed;
  std::string lastError;
  std::function<void()> onEnd;
  std::function<void(const std::string&)> onRefusal;
  bool isClosed = false;
  int subscriptions = 0;
};

struct Connection::Subscription {
  std::shared_ptr<Shared> shared;
  Handler handler;
};

Connection::Connection(const Access& access, const Options& options)
    : inbox_(options.inbox), shared_(std::make_shared<Shared>()) {
  shared_->onEnd = options.onEnd;
  shared_->onRefusal = options.onRefusal;
  std::vector<std::string> servers = access.servers;
  // A fleet spreads over its servers.
  std::ranges::shuffle(servers, std::mt19937(std::random_device{}()));
  std::stable_partition(servers.begin(), servers.end(), [&](const auto& server) { return server == options.first; });
  std::string why;
  bool isRefused = false;
  for (const std::string& server : servers) {
    std::string failure;
    try {
      logIn(access, server, options);
      return;
    } catch (const RefusedError& error) {
      isRefused = true;
      failure = error.what();
    } catch (const AwayError& error) {
      failure = error.what();
    }
    why += (why.empty() ? "" : "; ") + failure;
  }
  if (isRefused) throw RefusedError(why);
  throw AwayError(why);
}

/// A login with the right key is refused once in some hundreds, whoever signs what the server asks for, which is
/// something else each time: only who is refused again and again is.
void Connection::logIn(const Access& access, const std::string& server, const Options& options) {
  for (int login = 1;; ++login) {
    try {
      return connect(access, server, options);
    } catch (const RefusedError& error) {
      const bool isOfKey = std::string_view(error.what()).find("uthorization") != std::string_view::npos;
      if (access.seed.empty() || !isOfKey || login == kLogins) throw;
    }
  }
}

void Connection::connect(const Access& access, const std::string& server, const Options& options) {
  const OptionsPointer made = optionsOf(access, server, options);
  // Each is let go of by the callback for the end.
  auto closure = std::make_unique<std::shared_ptr<Shared>>(shared_);
  natsOptions_SetClosedCB(made.get(), onClosed, closure.get());
  // Errors can still come after the end, so theirs lives as long as the connection.
  natsOptions_SetErrorHandler(made.get(), onError, shared_.get());
  require(natsConnection_Connect(&connection_, made.get()), server);
  static_cast<void>(closure.release());
  chosen_ = server;
  {
    const std::lock_guard lock(shared_->mutex);
    shared_->lastError.clear();  // Of servers that were tried before.
  }
  char* address = nullptr;
  int port = 0;
  if (natsConnection_GetLocalIPAndPort(connection_, &address, &port) != NATS_OK) return;
  std::free(address);
  line_.emplace(static_cast<std::uint16_t>(port), static_cast<std::uint16_t>(std::atoi(Server(server).port.c_str())));
}

Connection::~Connection() {
  std::vector<natsSubscription*> subscriptions;
  {
    const std::lock_guard lock(mutex_);
    subscriptions.swap(subscriptions_);
  }
  for (natsSubscription* each : subscriptions) natsSubscription_Unsubscribe(each);
  natsConnection_Close(connection_);
  {
    std::unique_lock lock(shared_->mutex);
    shared_->onEnd = nullptr;
    shared_->onRefusal = nullptr;
    shared_->changed.wait_for(lock, kFarewell, [&] { return shared_->isClosed && shared_->subscriptions == 0; });
  }
  for (natsSubscription* each : subscriptions) natsSubscription_Destroy(each);
  natsConnection_Destroy(connection_);
}

void Connection::onClosed(natsConnection* /*connection*/, void* closure) {
  const std::unique_ptr<std::shared_ptr<Shared>> shared(static_cast<std::shared_ptr<Shared>*>(closure));
  std::function<void()> onEnd;
  {
    const std::lock_guard lock((*shared)->mutex);
    onEnd = (*shared)->onEnd;
  }
  if (onEnd) onEnd();
  const std::lock_guard lock((*shared)->mutex);
  (*shared)->isClosed = true;
  (*shared)->changed.notify_all();
}

void Connection::onError(natsConnection* connection, natsSubscription* /*subscription*/, natsStatus error,
                         void* closure) {
  auto* const shared = static_cast<Shared*>(closure);
  // The connection's own text may be that of a later one already.
  natsStatus told = NATS_OK;
  const char* text = nats_GetLastError(&told);
  if (told != error) natsConnection_GetLastError(connection, &text);
  const std::string said = text && *text ? text : natsStatus_GetText(error);
  std::function<void(const std::string&)> onRefusal;
  {
    const std::lock_guard lock(shared->mutex);
    shared->lastError = said;
    if (error == NATS_NOT_PERMITTED) onRefusal = shared->onRefusal;
  }
  if (onRefusal) onRefusal(said);
}

void Connection::onMessage(natsConnection* /*connection*/, natsSubscription* /*subscription*/, natsMsg* message,
                           void* closure) {
  static_cast<Subscription*>(closure)->handler(Message(message));
}

void Connection::onComplete(void* closure) {
  const std::unique_ptr<Subscription> subscription(static_cast<Subscription*>(closure));
  subscription->handler = nullptr;
  const std::lock_guard lock(subscription->shared->mutex);
  --subscription->shared->subscriptions;
  subscription->shared->changed.notify_all();
}

std::string Connection::server() const {
  std::string url(256, '\0');
  if (natsConnection_GetConnectedUrl(connection_, url.data(), url.size()) != NATS_OK) return {};
  url.resize(url.find('\0'));
  return url;
}

std::string Connection::lastError() const {
  const std::lock_guard lock(shared_->mutex);
  return shared_->lastError;
}

std::size_t Connection::largestMessage() const {
  return static_cast<std::size_t>(std::max<std::int64_t>(0, natsConnection_GetMaxPayload(connection_)));
}

void Connection::publish(const std::string& subject, std::string_view data) {
  require(natsConnection_Publish(connection_, subject.c_str(), data.data(), static_cast<int>(data.size())), subject);
}

namespace {
using MessagePointer = std::unique_ptr<natsMsg, decltype(&natsMsg_Destroy)>;

MessagePointer messageOf(const Letter& letter) {
  natsMsg* raw = nullptr;
  require(natsMsg_Create(&raw, letter.subject.c_str(), letter.reply.empty() ? nullptr : letter.reply.c_str(),
                         letter.data.data(), static_cast<int>(letter.data.size())),
          letter.subject);
  MessagePointer message(raw, &natsMsg_Destroy);
  for (const auto& [name, value] : letter.headers) {
    require(natsMsgHeader_Set(raw, name, value.c_str()), letter.subject);
  }
  return message;
}
}  // namespace

void Connection::publish(const Letter& letter) {
  const auto message = messageOf(letter);
  require(natsConnection_PublishMsg(connection_, message.get()), letter.subject);
}

/// The library takes a question that it could not even send for answered, and only this thread's last error tells that
/// it could not. So that is made a known one first.
void Connection::flush(std::chrono::milliseconds limit) {
  const char* const what = "the server does not answer";
  constexpr int kNone = 0;
  static_cast<void>(natsConnection_FlushTimeout(connection_, kNone));
  require(natsConnection_FlushTimeout(connection_, limit.count()), what);
  natsStatus last = NATS_OK;
  nats_GetLastError(&last);
  if (last != NATS_INVALID_TIMEOUT) fail(last, what);
}

Message Connection::request(const Letter& letter, std::chrono::milliseconds limit) {
  const auto message = messageOf(letter);
  natsMsg* reply = nullptr;
  const natsStatus status = natsConnection_RequestMsg(&reply, connection_, message.get(), limit.count());
  if (status == NATS_TIMEOUT && !lastError().empty()) throw RefusedError(lastError());
  require(status, letter.subject);
  return Message(reply);
}

Connection::SubscriptionId Connection::subscribe(const std::string& subject, Handler handler) {
  auto subscription = std::make_unique<Subscription>(Subscription{shared_, std::move(handler)});
  {
    const std::lock_guard lock(shared_->mutex);
    ++shared_->subscriptions;
  }
  natsSubscription* made = nullptr;
  // What arrives before the callback for the end is set is told all the same; it ends only by us.
  const natsStatus status =
      natsConnection_Subscribe(&made, connection_, subject.c_str(), onMessage, subscription.get());
  if (status != NATS_OK) {
    const std::lock_guard lock(shared_->mutex);
    --shared_->subscriptions;
    fail(status, subject);
  }
  natsSubscription_SetPendingLimits(made, -1, -1);
  natsSubscription_SetOnCompleteCB(made, onComplete, subscription.release());
  const std::lock_guard lock(mutex_);
  subscriptions_.push_back(made);
  return made;
}

void Connection::unsubscribe(SubscriptionId subscription) {
  {
    const std::lock_guard lock(mutex_);
    if (std::erase(subscriptions_, subscription) == 0) return;
  }
  natsSubscription_Unsubscribe(subscription);
  natsSubscription_Destroy(subscription);
}

}  // namespace HX::fleet
