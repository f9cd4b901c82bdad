#include "remoteservice.h"

#include "link.h"
#include "metacodec.h"
#include "remoteobject.h"

#include <hxerror/mutex.h>
#include <libmw/log.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include <fmt/format.h>

namespace mw::remote {
namespace {

bool isBehindEndedLink(const AnyObject& target) {
  const auto* const object = dynamic_cast<const RemoteObject*>(target.pointer().get());
  return object && object->link()->hasEnded();
}

}  // namespace

RemoteService::RemoteService(std::string name, AnyObject target) : name_(std::move(name)), target_(std::move(target)) {
  setMetaObject(target_->metaObject());
  standFor(*target_.pointer());
}

RemoteService::~RemoteService() = default;

AnyObject RemoteService::target() const {
  const HX::MutexLock lock(mutex_);
  return target_;
}

Future<SignalLink> RemoteService::metaConnect(unsigned signal, const SignalSubscriber& subscriber) {
  return target()->metaConnect(signal, subscriber).andThen([self = self(), signal, subscriber](const SignalLink& link) {
    self->add(link, {signal, subscriber, link});
    return link;
  });
}

void RemoteService::add(SignalLink link, Connection connection) {
  std::map<SignalLink, Connection> ended;  // Goes after the lock, with what belongs to the subscribers.
  const HX::MutexLock lock(mutex_);
  if (connections_.size() >= looksThroughAt_) {
    for (auto one = connections_.begin(); one != connections_.end();) {
      const auto next = std::next(one);
      if (one->second.subscriber.isOwnerGone()) ended.insert(connections_.extract(one));
      one = next;
    }
    looksThroughAt_ = 2 * std::max<std::size_t>(connections_.size(), 32);
  }
  connections_[link] = std::move(connection);
  if (isKept_) kept_ = self();
}

Future<void> RemoteService::metaDisconnect(SignalLink link) {
  std::shared_ptr<RemoteService> kept;  // Goes last: it may be this one's last reference.
  Connection ended;
  AnyObject target;
  {
    const HX::MutexLock lock(mutex_);
    const auto found = connections_.find(link);
    if (found == connections_.end()) return noSuchLink(link);
    ended = std::move(found->second);
    connections_.erase(found);
    if (connections_.empty()) kept.swap(kept_);
    if (isBehindEndedLink(target_)) return makeReadyFuture();  // It has ended with that.
    target = target_;
  }
  return target->metaDisconnect(ended.link);
}

bool RemoteService::isLost() const { return isBehindEndedLink(target()); }

std::optional<std::vector<Future<void>>> RemoteService::bind(const AnyObject& target) {
  if (toValue(target->metaObject()) != toValue(metaObject())) return std::nullopt;
  std::map<SignalLink, Connection> connections;
  {
    const HX::MutexLock lock(mutex_);
    if (!isBehindEndedLink(target_)) return std::vector<Future<void>>();
    target_ = target;
    standFor(*target.pointer());
    std::erase_if(connections_, [&](const auto& one) {
      connections.insert(one);
      return one.second.subscriber.isOwnerGone();
    });
  }
  std::vector<Future<void>> connected;
  for (const auto& [first, connection] : connections) {
    if (!connection.subscriber.isOwnerGone()) connected.push_back(connectAgain(target, first, connection));
  }
  return connected;
}

Future<void> RemoteService::connectAgain(const AnyObject& target, SignalLink first, const Connection& connection) {
  const auto made = [self = self(), target, first](const SignalLink& link) {
    {
      const HX::MutexLock lock(self->mutex_);
      if (const auto found = self->connections_.find(first); found != self->connections_.end()) {
        found->second.link = link;
        return;
      }
    }
    target->metaDisconnect(link);  // Disconnected meanwhile.
  };
  return target->metaConnect(connection.signal, connection.subscriber)
      .andThen(made)
      .then([self = self(), signal = connection.signal](const Future<void>& done) {
        if (!done.hasError()) return;
        log::warning("mw.link", "bind",
                     fmt::format("{} of service {} is not connected again: {}", self->memberName(signal), self->name(),
                                 done.error()));
      });
}

void RemoteService::keepNoLonger() {
  std::shared_ptr<RemoteService> kept;  // Goes after the lock.
  const HX::MutexLock lock(mutex_);
  isKept_ = false;
  kept.swap(kept_);
}

AnyObject RemoteServices::handle(const std::string& name, const AnyObject& found) {
  if (!found) return found;
  std::shared_ptr<RemoteService> known;
  {
    const HX::MutexLock lock(mutex_);
    known = known_[name].lock();
    if (!known || (known->target() != found && !known->isLost())) {
      if (known) known->keepNoLonger();
      return makeLocked(name, found);
    }
  }
  if (known->bind(found)) return AnyObject(std::move(known));
  const HX::MutexLock lock(mutex_);
  known->keepNoLonger();
  return makeLocked(name, found);
}

AnyObject RemoteServices::makeLocked(const std::string& name, const AnyObject& found) {
  std::erase_if(known_, [&](const auto& one) { return one.second.expired(); });
  const auto made = std::make_shared<RemoteService>(name, found);
  if (isOver_) made->keepNoLonger();
  known_[name] = made;
  return AnyObject(made);
}

std::vector<std::shared_ptr<RemoteService>> RemoteServices::inUse() const {
  std::vector<std::shared_ptr<RemoteService>> all;
  const HX::MutexLock lock(mutex_);
  for (const auto& [name, service] : known_) {
    if (auto held = service.lock()) all.push_back(std::move(held));
  }
  return all;
}

void RemoteServices::close() {
  {
    const HX::MutexLock lock(mutex_);
    isOver_ = true;
  }
  for (const auto& service : inUse()) service->keepNoLonger();
}

bool RemoteServices::isLost(const std::string& name) const {
  std::shared_ptr<RemoteService> known;
  const HX::MutexLock lock(mutex_);
  const auto found = known_.find(name);
  if (found != known_.end()) known = found->second.lock();
  return known && known->isLost();
}

void RemoteServices::bindAll(const std::function<AnyObject(const std::string&)>& find,
                             std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::vector<Future<void>> all;
  for (const auto& service : inUse()) {
    try {
      const AnyObject found = find(service->name());
      if (!found) continue;
      const auto connected = service->bind(found);
      if (connected) {
        all.insert(all.end(), connected->begin(), connected->end());
      } else {
        log::warning("mw.link", "bind",
                     fmt::format("service {} has changed; who holds it has to look it up again", service->name()));
      }
    } catch (const std::exception& error) {
      log::warning("mw.link", "bind", fmt::format("service {} is not found again: {}", service->name(), error.what()));
    }
  }
  for (const auto& connected : all) {
    connected.wait(std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()));
  }
}

}  // namespace mw::remote
