#include "../remote/announcedservices.h"
#include "../remote/offeredservices.h"
#include "../remote/remoteservice.h"
#include "../remote/sessionservice.h"
#include "../runtime/processend.h"
#include "fileclient.h"
#include "socketchannel.h"
#include "socketfolder.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/local.h>
#include <libmw/log.h>
#include <libmw/session.h>

#include <algorithm>
#include <atomic>
#include <sys/socket.h>
#include <utility>

#include <fmt/format.h>

namespace mw {
namespace {

using HX::HXValue;
using namespace std::chrono_literals;

const char* const kCategory = "mw.link";
constexpr auto kFirstPause = 20ms;
constexpr auto kLongestPause = 2000ms;
/// A broker that takes a connection and does not greet is one that hangs.
constexpr auto kGreetingTimeout = 5000ms;
/// Ids of the broker's services, apart from those of this process.
constexpr ServiceId kBrokerIds = 0x80000000U;

std::string onlyBroker() {
  const auto running = runningBrokers();
  if (running.size() == 1) return running.front();
  if (running.empty()) throw NoBrokerError("no broker is running");
  throw NoBrokerError(fmt::format("several brokers are running, say which: {}", fmt::join(running, ", ")));
}

}  // namespace

class LocalClient::Impl final : public RemoteDirectory, public std::enable_shared_from_this<Impl> {
 public:
  Impl(Session& session, const std::string& broker, const Options& options)
      : session_(session),
        options_(options),
        broker_(broker.empty() ? onlyBroker() : broker),
        files_(local::filesOf(broker_)) {}

  void start() {
    if (!connect()) {
      throw NoBrokerError(local::isLocked(files_)
                              ? fmt::format("broker {} lets nobody in yet: it loads its modules", broker_)
                              : fmt::format("no broker named {} is running", broker_));
    }
    try {
      session_.join(shared_from_this());
    } catch (...) {
      stop();
      throw;
    }
  }

  void stop() {
    if (detail::isForkedChild()) return;  // The connection is the parent's.
    lifetime_.destroy();
    session_.join(nullptr);
    services_.close();
    const auto link = [this] {
      const HX::MutexLock lock(mutex_);
      stopped_ = true;
      return link_;
    }();
    if (!link) return;
    link->end("the client has left");
    link->gone().wait();
  }

  const std::string& broker() const { return broker_; }

  bool isConnected() const {
    const HX::MutexLock lock(mutex_);
    return connected_;
  }

  Future<AnyObject> find(const std::string& name) override {
    return link()->ask("korvo.service", name).andThen([self = shared_from_this(), name](const AnyValue& found) {
      return found.getIf<AnyObject>() ? self->services_.handle(name, *found.getIf<AnyObject>()) : AnyObject();
    });
  }

  Future<std::vector<ServiceInfo>> services() override { return servicesOf(*link()); }

  static Future<std::vector<ServiceInfo>> servicesOf(remote::Link& link) {
    return link.ask("korvo.services").andThen([](const AnyValue& listed) {
      std::vector<ServiceInfo> all;
      for (const auto& entry : listed.reference().to<std::vector<HXValue>>()) {
        all.push_back({static_cast<ServiceId>(entry[0].toInt64()) | kBrokerIds, entry[1].asString()});
      }
      return all;
    });
  }

  Ticket offerFile(const File& file) override { return local::leaveAt(files_.files, file); }
  File fetchFile(const Ticket& ticket) override { return local::fetchFrom(files_.files, ticket); }

  void offer(ServiceId id, const std::string& name, const AnyObject& object) override {
    offered_.offer(*link(), id, name, object);
  }

  void withdraw(ServiceId id, const std::string&) override {
    const auto known = offered_.withdraw(id);
    if (known && isConnected()) link()->ask("korvo.unregister", *known).wait(kGreetingTimeout);
  }

 private:
  /// One attempt. @return False when no broker listens.
  bool connect() {
    const int number = ++connections_;
    File socket = local::connectTo(files_.socket, SOCK_STREAM);
    if (!socket) return false;
    if (!local::isOwnPeer(socket)) throw std::runtime_error(fmt::format("broker {} is another user's", broker_));
    const auto channel = std::make_shared<local::SocketChannel>(std::move(socket), local::withReserve(options_.link));
    const auto link = std::make_shared<remote::Link>(channel, &session_, options_.link);
    const auto isOver = std::make_shared<bool>(false);  // Guarded by `mutex_`.
    announced_.begin(number);
    link->start(std::make_shared<Greeter>(session_, link, number, weak_from_this(), lifetime_.token()),
                [weak = weak_from_this(), raw = link.get(), isOver](const std::string& reason) {
                  if (const auto self = weak.lock()) self->onEnd(raw, reason, *isOver);
                });
    try {
      greet(*link);
      link->ask("korvo.watch").take(kGreetingTimeout);
      if (number == 1) announced_.listed(number, servicesOf(*link).take(kGreetingTimeout));
    } catch (...) {
      // What ends with it uses the session, which may go when this fails.
      link->end("the broker does not greet");
      link->gone().wait();
      throw;
    }
    const HX::MutexLock lock(mutex_);
    if (stopped_) {
      link->end("the client has left");
      return true;
    }
    // Ended behind its last answer: `onEnd` did not know it yet, and nobody else would try again.
    if (*isOver) throw std::runtime_error(std::string(remote::kPeerClosed));
    link_ = link;
    connected_ = true;
    return true;
  }

  /// Each side says what program it is. A broker of an earlier version ignores that, and does not say.
  static void greet(remote::Link& link) {
    const AnyValue reply =
        link.ask("korvo.hello", remote::kProtocol, remote::programName(), true).take(kGreetingTimeout);
    const HXValue* const told = reply.getIf<HXValue>();
    const auto entry = [&](const char* name) { return told && told->isMap() ? told->find(name) : nullptr; };
    const HXValue* const program = entry("program");
    const HXValue* const authors = entry("authors");
    link.authors().greet(program && program->isString() ? program->asString() : "",
                         authors && authors->isBool() && authors->asBool());
  }

  /// Answers the broker, and hands its notices to the session.
  class Greeter final : public remote::ReservedService {
   public:
    Greeter(Session& session, const std::shared_ptr<remote::Link>& link, int connection, std::weak_ptr<Impl> impl,
            Lifetime::Token client)
        : own_(std::make_shared<remote::SessionService>(session, "", link, remote::SessionService::Role::Client)),
          connection_(connection),
          impl_(std::move(impl)),
          client_(std::move(client)) {}

    Future<AnyValue> call(std::string_view method, std::span<const AnyValue> arguments) override {
      if (method != "registered" && method != "unregistered") return own_->call(method, arguments);
      if (arguments.size() != 2) throw std::runtime_error("a notice has two arguments");
      const auto id = arguments[0].reference().to<ServiceId>() | kBrokerIds;
      const auto name = arguments[1].reference().to<std::string>();
      const auto pass = client_.enter();
      if (!pass) return Future<AnyValue>::ready(AnyValue());
      if (const auto impl = impl_.lock()) impl->onNotice(connection_, id, name, method == "registered");
      return Future<AnyValue>::ready(AnyValue());
    }
    AnyObject find(const std::string& service) override { return own_->find(service); }
    void end() override { own_->end(); }

   private:
    const std::shared_ptr<remote::SessionService> own_;
    const int connection_;
    const std::weak_ptr<Impl> impl_;
    const Lifetime::Token client_;
  };

  void onNotice(int connection, ServiceId id, const std::string& name, bool isThere) {
    if (!isThere) {
      announced_.went(connection, id, name);
      return onNameFree(name);
    }
    if (services_.isLost(name)) find(name);  // It comes later than the broker: what is held works from now on.
    announced_.came(connection, id, name);
  }

  std::shared_ptr<remote::Link> link() const {
    const HX::MutexLock lock(mutex_);
    return link_;
  }

  void onEnd(const remote::Link* ended, const std::string& reason, bool& isOver) {
    {
      const HX::MutexLock lock(mutex_);
      isOver = true;
      if (link_.get() != ended || !connected_) return;
      connected_ = false;
      if (stopped_) return;
    }
    offered_.forgetIds();
    const auto token = lifetime_.token();
    if (const auto pass = token.enter()) {
      log::warning(kCategory, "end", fmt::format("the connection to broker {} is lost: {}", broker_, reason));
      announced_.lost(connections_, reason);
    }
    if (options_.reconnects) retryAfter(kFirstPause);
  }

  void retryAfter(std::chrono::milliseconds pause) {
    defaultLoop().post(
        [weak = weak_from_this(), pause] {
          if (const auto self = weak.lock()) self->retry(pause);
        },
        pause);
  }

  void retry(std::chrono::milliseconds pause) {
    const auto token = lifetime_.token();
    const auto pass = token.enter();
    if (!pass) return;
    try {
      if (!connect()) return retryAfter(std::min(2 * pause, kLongestPause));
    } catch (const std::exception& error) {
      log::verbose(kCategory, "retry", fmt::format("broker {}: {}", broker_, error.what()));
      return retryAfter(std::min(2 * pause, kLongestPause));
    }
    offered_.offerAll(*link());
    services_.bindAll(
        [this](const std::string& name) {
          const AnyValue found = link()->ask("korvo.service", name).take(kGreetingTimeout);
          return found.getIf<AnyObject>() ? *found.getIf<AnyObject>() : AnyObject();
        },
        kGreetingTimeout);
    try {
      announced_.listed(connections_, othersOf(servicesOf(*link()).take(kGreetingTimeout)));
    } catch (const std::exception& error) {
      // It is lost again, as a rule, and somebody else tries again.
      return log::verbose(kCategory, "retry", fmt::format("broker {}: {}", broker_, error.what()));
    }
    log::info(kCategory, "retry", fmt::format("the connection to broker {} is back", broker_));
    announced_.isBack(connections_);
  }

  /// Without the services that this process offers.
  std::vector<ServiceInfo> othersOf(std::vector<ServiceInfo> all) const {
    std::erase_if(all, [this](const ServiceInfo& one) { return offered_.isOwn(one.id & ~kBrokerIds); });
    return all;
  }

  void onNameFree(const std::string& name) {
    const auto missing = isConnected() ? offered_.onNameFree(name) : std::nullopt;
    if (!missing) return;
    defaultLoop().post([weak = weak_from_this(), id = *missing, name] {
      const auto self = weak.lock();
      const auto token = self ? self->lifetime_.token() : Lifetime::Token();
      const auto pass = token.enter();
      if (self && pass) self->offered_.offerAgain(*self->link(), id, name);
    });
  }

  Session& session_;
  const Options options_;
  const std::string broker_;
  const local::BrokerFiles files_;
  remote::RemoteServices services_;
  remote::OfferedServices offered_;
  remote::AnnouncedServices announced_{session_};
  std::atomic<int> connections_{0};  // tried so far, one after another
  Lifetime lifetime_;                // around every use of the session that the owner does not wait for otherwise

  mutable HX::Mutex mutex_;
  bool stopped_ HX_GUARDED_BY(mutex_) = false;
  bool connected_ HX_GUARDED_BY(mutex_) = false;
  std::shared_ptr<remote::Link> link_ HX_GUARDED_BY(mutex_);  // the latest; may have ended
};

LocalClient::LocalClient(Session& session, const std::string& broker) : LocalClient(session, broker, Options{}) {}

LocalClient::LocalClient(Session& session, const std::string& broker, const Options& options)
    : impl_(std::make_shared<Impl>(session, broker, options)) {
  impl_->start();
}

LocalClient::~LocalClient() { impl_->stop(); }

const std::string& LocalClient::broker() const { return impl_->broker(); }

bool LocalClient::isConnected() const { return impl_->isConnected(); }

}  // namespace mw
