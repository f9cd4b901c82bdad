#include "../runtime/filedesk.h"
#include "../runtime/threadlocal.h"
#include "servicehandle.h"
#include "sessiondirectory.h"
#include "sessionnotices.h"

#include <libmw/remoteerror.h>
#include <libmw/session.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw {

namespace {

/// The innermost one of the calling thread.
HX_THREAD_LOCAL constinit Session::CatchUp* catchingUp = nullptr;

Future<AnyObject> noSuchService(const std::string& name) {
  return Future<AnyObject>::failed(
      std::make_exception_ptr(NoSuchServiceError(fmt::format("no service named {}", name))));
}

}  // namespace

RemoteDirectory::~RemoteDirectory() = default;

Ticket RemoteDirectory::offerFile(const File& /*file*/) {
  throw std::runtime_error("files can only be handed to processes of the same machine");
}

File RemoteDirectory::fetchFile(const Ticket& /*ticket*/) {
  throw std::runtime_error("files can only be had from processes of the same machine");
}

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
