#include "../runtime/filedesk.h"
#include "../runtime/threadlocal.h"
#include "servicehandle.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/remoteerror.h>
#include <libmw/session.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include <fmt/format.h>

namespace mw {

namespace {

/// The innermost one of the calling thread.
HX_THREAD_LOCAL constinit Session::CatchUp* catchingUp = nullptr;

/// What a library that takes long to load may catch up with.
constexpr std::size_t kMostRemembered = 65536;

}  // namespace

/// Notices on their way to the handlers. Shared with the task that delivers them, which may outlast the session.
class Session::Notices : public std::enable_shared_from_this<Notices> {
 public:
  enum class Kind : std::uint8_t { Registered, Unregistered, Lost, Restored };
  struct Notice {
    Notice(Kind what, ServiceId service, std::string words, SignalLink handler = kInvalidSignalLink,
           std::uint64_t first = 0)
        : kind(what), id(service), text(std::move(words)), latecomer(handler), since(first) {}

    Kind kind;
    ServiceId id;
    std::string text;  ///< The name of the service, or the reason of the loss.
    /// Other than 0: not news, but those since `since` for the handler of this link, as far as it has missed them.
    SignalLink latecomer;
    std::uint64_t since;
  };

  Notices(Session& session, EventLoop& loop) : session_(session), loop_(loop) {}

  void add(Notice notice) {
    const HX::MutexLock lock(mutex_);
    waiting_.push_back(std::move(notice));
    startLocked();
  }

  void hold() {
    const HX::MutexLock lock(mutex_);
    ++holds_;
  }

  void release() {
    const HX::MutexLock lock(mutex_);
    --holds_;
    startLocked();
  }

  /// Remembers from now on what is delivered. @return The number of the next one.
  std::uint64_t remember() {
    const HX::MutexLock lock(mutex_);
    ++remembering_;
    return delivered_;
  }

  void forget() {
    std::deque<Delivered> gone;
    const HX::MutexLock lock(mutex_);
    if (--remembering_ == 0) gone.swap(past_);
  }

  /// No handler is called any more once this has returned, except by the calling thread itself.
  void end() { lifetime_.destroy(); }

 private:
  struct Delivered {
    Notice notice;
    std::uint64_t number = 0;
    SignalLink before = kInvalidSignalLink;  ///< Handlers of greater links were not told.
  };

  // The posting itself happens under the lock; the loop never runs what is posted in the caller.
  void startLocked() HX_REQUIRES(mutex_) {
    if (delivering_ || holds_ > 0 || waiting_.empty()) return;
    delivering_ = loop_.post([self = shared_from_this()] { self->deliver(); });
  }

  void deliver() {
    while (true) {
      HX::MutexLock lock(mutex_);
      if (holds_ > 0 || waiting_.empty()) {
        delivering_ = false;
        return;
      }
      Notice notice = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      const auto token = lifetime_.token();
      const auto pass = token.enter();
      if (!pass) continue;
      if (notice.latecomer != kInvalidSignalLink) {
        tellPast(notice);
        forget();
      } else {
        const SignalLink before = tell(notice);
        if (before == kInvalidSignalLink) continue;
        lock.lock();
        const std::uint64_t number = delivered_++;
        if (remembering_ == 0) continue;
        if (past_.size() == kMostRemembered) past_.pop_front();
        past_.push_back({std::move(notice), number, before});
      }
    }
  }

  /// @return Of services, a link that all those lie before who were told.
  SignalLink tell(const Notice& notice) const {
    switch (notice.kind) {
      case Kind::Registered:
      case Kind::Unregistered:
        return signalOf(notice).tell(notice.id, notice.text);
      case Kind::Lost:
        session_.connectionLost(notice.text);
        break;
      case Kind::Restored:
        session_.connectionRestored();
        break;
    }
    return kInvalidSignalLink;
  }

  void tellPast(const Notice& wanted) {
    std::deque<Delivered> past;
    {
      const HX::MutexLock lock(mutex_);
      past = past_;
    }
    for (const Delivered& one : past) {
      if (one.number < wanted.since || one.before > wanted.latecomer || one.notice.kind != wanted.kind) continue;
      signalOf(wanted).tellOne(wanted.latecomer, one.notice.id, one.notice.text);
    }
  }

  NoticeSignal& signalOf(const Notice& notice) const {
    return notice.kind == Kind::Registered ? session_.serviceRegistered : session_.serviceUnregistered;
  }

  Session& session_;
  EventLoop& loop_;
  Lifetime lifetime_;
  HX::Mutex mutex_;
  std::deque<Notice> waiting_ HX_GUARDED_BY(mutex_);
  int holds_ HX_GUARDED_BY(mutex_) = 0;
  bool delivering_ HX_GUARDED_BY(mutex_) = false;
  int remembering_ HX_GUARDED_BY(mutex_) = 0;
  std::uint64_t delivered_ HX_GUARDED_BY(mutex_) = 0;
  std::deque<Delivered> past_ HX_GUARDED_BY(mutex_);  // as long as somebody may have to catch up
};

SignalLink NoticeSignal::connect(SignalSubscriber subscriber) {
  const SignalLink link = SignalBase::connect(std::move(subscriber));
  if (onConnect_) onConnect_(link);
  return link;
}

SignalLink NoticeSignal::tell(ServiceId id, const std::string& name) {
  const SignalLink before = nextLink();
  detail::withParameters([&](GenericFunctionParameters all) { triggerBetween(kInvalidSignalLink, before, all); }, id,
                         name);
  return before;
}

void NoticeSignal::tellOne(SignalLink link, ServiceId id, const std::string& name) {
  detail::withParameters([&](GenericFunctionParameters all) { triggerBetween(link - 1, link + 1, all); }, id, name);
}

/// The services of this process, and who finds the others.
class Session::Directory {
 public:
  Directory(EventLoop& eventLoop, Notices& notices) : loop(eventLoop), notices_(notices) {}

  /// @param remote  Set to the directory that has to be told. Whoever joins one later finds the service in the list.
  ServiceId add(const std::string& name, std::shared_ptr<ServiceHandle> handle,
                std::shared_ptr<RemoteDirectory>& remote) {
    const HX::MutexLock lock(mutex_);
    remote = remote_;
    if (closed_) throw std::runtime_error(fmt::format("cannot register service {}: the session is closed", name));
    const ServiceId id = nextId_;
    if (!ids_.emplace(name, id).second) {
      throw std::runtime_error(fmt::format("service {} is registered already", name));
    }
    ++nextId_;
    services_.emplace(id, Service{name, std::move(handle)});
    notices_.add({Notices::Kind::Registered, id, name});
    return id;
  }

  struct Service {
    std::string name;
    std::shared_ptr<ServiceHandle> handle;
  };

  std::optional<Service> remove(ServiceId id) {
    const HX::MutexLock lock(mutex_);
    const auto found = services_.find(id);
    if (found == services_.end()) return std::nullopt;
    Service service = std::move(found->second);
    ids_.erase(service.name);
    services_.erase(found);
    notices_.add({Notices::Kind::Unregistered, id, service.name});
    return service;
  }

  std::shared_ptr<ServiceHandle> find(const std::string& name) const {
    const HX::MutexLock lock(mutex_);
    const auto found = ids_.find(name);
    return found == ids_.end() ? nullptr : services_.at(found->second).handle;
  }

  std::vector<ServiceInfo> list() const {
    const HX::MutexLock lock(mutex_);
    std::vector<ServiceInfo> all;
    for (const auto& [id, service] : services_) all.push_back({id, service.name});
    return all;
  }

  /// @return The last registered service; 0 when there is none.
  ServiceId closeAndPickLast() {
    const HX::MutexLock lock(mutex_);
    closed_ = true;
    return services_.empty() ? 0 : services_.rbegin()->first;
  }

  void setRemote(std::shared_ptr<RemoteDirectory> remote) {
    const HX::MutexLock lock(mutex_);
    remote_.swap(remote);
  }

  std::shared_ptr<RemoteDirectory> remote() const {
    const HX::MutexLock lock(mutex_);
    return remote_;
  }

  void setResolver(Resolver resolver) {
    const HX::MutexLock lock(mutex_);
    resolver_ = std::move(resolver);
  }

  Resolver resolver() const {
    const HX::MutexLock lock(mutex_);
    return resolver_;
  }

  EventLoop& loop;
  std::atomic<std::chrono::milliseconds> drainPatience{std::chrono::seconds(5)};

 private:
  Notices& notices_;
  // Outer to the mutex of the notices, so that these are in the order of what happened.
  mutable HX::Mutex mutex_;
  std::map<ServiceId, Service> services_ HX_GUARDED_BY(mutex_);
  std::map<std::string, ServiceId> ids_ HX_GUARDED_BY(mutex_);
  ServiceId nextId_ HX_GUARDED_BY(mutex_) = 1;
  bool closed_ HX_GUARDED_BY(mutex_) = false;
  Resolver resolver_ HX_GUARDED_BY(mutex_);
  std::shared_ptr<RemoteDirectory> remote_ HX_GUARDED_BY(mutex_);
};

RemoteDirectory::~RemoteDirectory() = default;

Ticket RemoteDirectory::offerFile(const File& /*file*/) {
  throw std::runtime_error("files can only be handed to processes of the same machine");
}

File RemoteDirectory::fetchFile(const Ticket& /*ticket*/) {
  throw std::runtime_error("files can only be had from processes of the same machine");
}

namespace {

Future<AnyObject> noSuchService(const std::string& name) {
  return Future<AnyObject>::failed(
      std::make_exception_ptr(NoSuchServiceError(fmt::format("no service named {}", name))));
}

}  // namespace

Session::Session() : Session(defaultLoop()) {}

Session::Session(EventLoop& loop)
    : notices_(std::make_shared<Notices>(*this, loop)), directory_(std::make_unique<Directory>(loop, *notices_)) {
  const auto catchUp = [this](Notices::Kind kind) {
    return [this, kind](SignalLink link) {
      for (const CatchUp* own = catchingUp; own; own = own->outer_) {
        if (&own->session_ != this) continue;
        notices_->remember();  // Until this handler has caught up.
        return notices_->add({kind, 0, "", link, own->begin_});
      }
    };
  };
  serviceRegistered.onConnect_ = catchUp(Notices::Kind::Registered);
  serviceUnregistered.onConnect_ = catchUp(Notices::Kind::Unregistered);
}

Session::~Session() {
  close();
  notices_->end();
}

Future<AnyObject> Session::service(const std::string& name, const std::string&) {
  if (auto local = directory_->find(name)) return Future<AnyObject>::ready(AnyObject(std::move(local)));
  try {
    if (const Resolver resolver = directory_->resolver()) {
      auto found = resolver(name);
      if (found.isValid()) return found;
    }
    if (const auto remote = directory_->remote()) {
      return remote->find(name).andThen(
          [name](const AnyObject& object) { return object ? Future<AnyObject>::ready(object) : noSuchService(name); });
    }
  } catch (...) {
    return Future<AnyObject>::failed(std::current_exception());
  }
  return noSuchService(name);
}

ServiceId Session::registerService(const std::string& name, AnyObject object) {
  if (name.empty()) throw std::runtime_error("cannot register a service without a name");
  auto handle = std::make_shared<ServiceHandle>(name, std::move(object));
  std::shared_ptr<RemoteDirectory> remote;
  const ServiceId id = directory_->add(name, handle, remote);
  // A handler that was told of the service may have destroyed the session by now.
  if (remote) {
    try {
      remote->offer(id, name, AnyObject(std::move(handle)));
    } catch (...) {
      unregisterService(id);
      throw;
    }
  }
  return id;
}

bool Session::unregisterService(ServiceId id, const std::function<void()>& beforeDrain) {
  const auto service = directory_->remove(id);
  if (!service) return false;
  if (const auto remote = directory_->remote()) remote->withdraw(id, service->name);
  service->handle->cutOff(beforeDrain, directory_->drainPatience);
  return true;
}

void Session::setDrainPatience(std::chrono::milliseconds patience) { directory_->drainPatience = patience; }

std::vector<ServiceInfo> Session::services() const { return directory_->list(); }

AnyObject Session::ownService(const std::string& name) const { return AnyObject(directory_->find(name)); }

Future<std::vector<ServiceInfo>> Session::reachableServices() const {
  const auto local = directory_->list();
  const auto remote = directory_->remote();
  if (!remote) return makeReadyFuture(local);
  return remote->services().andThen([local](const std::vector<ServiceInfo>& beyond) {
    auto all = beyond;
    for (const ServiceInfo& own : local) {
      if (std::ranges::find(beyond, own.name, &ServiceInfo::name) == beyond.end()) all.push_back(own);
    }
    return all;
  });
}

void Session::join(std::shared_ptr<RemoteDirectory> directory) {
  directory_->setRemote(std::move(directory));
  const auto joined = directory_->remote();
  if (!joined) return;
  // Registered meanwhile, a service may be offered by its own thread as well, which does no harm.
  try {
    for (const ServiceInfo& own : directory_->list()) {
      if (auto handle = directory_->find(own.name)) joined->offer(own.id, own.name, AnyObject(std::move(handle)));
    }
  } catch (...) {
    directory_->setRemote(nullptr);
    throw;
  }
}

Ticket Session::offerFile(const File& file) {
  const auto remote = directory_->remote();
  return remote ? remote->offerFile(file) : FileDesk::instance().keep(duplicate(file));
}

File Session::fetchFile(const Ticket& ticket) {
  if (File own = FileDesk::instance().take(ticket)) return own;
  if (const auto remote = directory_->remote()) return remote->fetchFile(ticket);
  throw std::runtime_error("no file lies here under this ticket, or not any more");
}

void Session::setResolver(Resolver resolver) { directory_->setResolver(std::move(resolver)); }

void Session::close() {
  while (const ServiceId last = directory_->closeAndPickLast()) unregisterService(last);
}

EventLoop& Session::eventLoop() const { return directory_->loop; }

void Session::announce(ServiceId id, const std::string& name, bool registered) {
  notices_->add({registered ? Notices::Kind::Registered : Notices::Kind::Unregistered, id, name});
}

void Session::announceLoss(const std::string& reason) { notices_->add({Notices::Kind::Lost, 0, reason}); }
void Session::announceReturn() { notices_->add({Notices::Kind::Restored, 0, {}}); }

Session::CatchUp::CatchUp(Session& session)
    : session_(session), begin_(session.notices_->remember()), outer_(std::exchange(catchingUp, this)) {}

Session::CatchUp::~CatchUp() {
  catchingUp = outer_;
  session_.notices_->forget();
}

Session::NoticeHold::NoticeHold(Session& session) : session_(session) { session_.notices_->hold(); }
Session::NoticeHold::~NoticeHold() { session_.notices_->release(); }

}  // namespace mw
