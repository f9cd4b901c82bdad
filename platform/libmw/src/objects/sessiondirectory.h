#pragma once

#include "servicehandle.h"
#include "sessionnotices.h"

#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/session.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace mw {

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

}  // namespace mw
