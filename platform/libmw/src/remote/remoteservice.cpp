#include "remoteservice.h"

#include "metacodec.h"

#include <libmw/log.h>

#include <vector>

#include <fmt/format.h>

namespace mw::remote {

RemoteService::RemoteService(std::string name, AnyObject target) : name_(std::move(name)), target_(std::move(target)) {
  setMetaObject(target_->metaObject());
}

RemoteService::~RemoteService() = default;

AnyObject RemoteService::target() const {
  const std::lock_guard lock(mutex_);
  return target_;
}

Future<AnyValue> RemoteService::metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) {
  return target()->metaCall(method, parameters, callType);
}

void RemoteService::metaPost(unsigned member, GenericFunctionParameters parameters) {
  target()->metaPost(member, parameters);
}

Future<SignalLink> RemoteService::metaConnect(unsigned signal, const SignalSubscriber& subscriber) {
  return target()
      ->metaConnect(signal, subscriber)
      .andThen([self = std::static_pointer_cast<RemoteService>(shared_from_this()), signal,
                subscriber](const SignalLink& link) {
        const std::lock_guard lock(self->mutex_);
        self->connections_[link] = {signal, subscriber, link};
        return link;
      });
}

Future<void> RemoteService::metaDisconnect(SignalLink link) {
  AnyObject target;
  {
    const std::lock_guard lock(mutex_);
    const auto found = connections_.find(link);
    if (found == connections_.end()) return makeReadyFuture();
    link = found->second.link;
    connections_.erase(found);
    target = target_;
  }
  return target->metaDisconnect(link);
}

Future<AnyValue> RemoteService::metaProperty(unsigned property) { return target()->metaProperty(property); }

Future<void> RemoteService::metaSetProperty(unsigned property, const AnyValue& value) {
  return target()->metaSetProperty(property, value);
}

bool RemoteService::bind(const AnyObject& target) {
  if (toValue(target->metaObject()) != toValue(metaObject())) return false;
  std::map<SignalLink, Connection> connections;
  {
    const std::lock_guard lock(mutex_);
    target_ = target;
    connections = connections_;
  }
  for (auto& [first, connection] : connections) {
    const SignalLink link = target->metaConnect(connection.signal, connection.subscriber).take();
    std::unique_lock lock(mutex_);
    if (const auto found = connections_.find(first); found != connections_.end()) {
      found->second.link = link;
    } else {
      lock.unlock();  // Disconnected meanwhile.
      target->metaDisconnect(link);
    }
  }
  return true;
}

AnyObject RemoteServices::handle(const std::string& name, const AnyObject& found) {
  if (!found) return found;
  const std::lock_guard lock(mutex_);
  auto& entry = known_[name];
  if (auto known = entry.lock(); known && known->target() == found) return AnyObject(std::move(known));
  std::erase_if(known_, [&](const auto& one) { return one.first != name && one.second.expired(); });
  const auto made = std::make_shared<RemoteService>(name, found);
  known_[name] = made;
  return AnyObject(made);
}

void RemoteServices::bindAll(const std::function<AnyObject(const std::string&)>& find) {
  std::vector<std::shared_ptr<RemoteService>> inUse;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, service] : known_) {
      if (auto held = service.lock()) inUse.push_back(std::move(held));
    }
  }
  for (const auto& service : inUse) {
    try {
      const AnyObject found = find(service->name());
      if (found && !service->bind(found)) {
        log::warning("mw.link", "bind",
                     fmt::format("service {} has changed; who holds it has to look it up again", service->name()));
      }
    } catch (const std::exception& error) {
      log::warning("mw.link", "bind", fmt::format("service {} is not found again: {}", service->name(), error.what()));
    }
  }
}

}  // namespace mw::remote
