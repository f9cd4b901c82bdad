#pragma once

#include <libmw/genericobject.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace mw::remote {

class Link;

/// An object of the process at the other end of a link. Calls that wait are served as `chain.h` says; when the link has
/// ended they fail with a runtime error that names the peer.
class RemoteObject final : public GenericObject {
 public:
  RemoteObject(std::shared_ptr<Link> link, std::uint32_t id, MetaObject metaObject);
  ~RemoteObject() override;

  Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) override;
  /// Errors of a method are logged by the process that the object lives in. A signal's trigger is waited for.
  void metaPost(unsigned member, GenericFunctionParameters parameters) override;
  Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  Future<AnyValue> metaProperty(unsigned property) override;
  Future<void> metaSetProperty(unsigned property, const AnyValue& value) override;
  bool isRemote() const override { return true; }

  const std::shared_ptr<Link>& link() const { return link_; }
  std::uint32_t id() const { return id_; }
  /// One more reference to it has come, which is to be given back.
  void addReference() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }

 private:
  const std::shared_ptr<Link> link_;
  const std::uint32_t id_;
  const std::string name_;  // "@12.", which a member's number completes
  std::atomic<std::uint32_t> references_{0};
};

}  // namespace mw::remote
