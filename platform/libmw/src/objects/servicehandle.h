#pragma once

#include <libmw/genericobject.h>

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>

namespace mw {

namespace detail {
class QueuedCall;
}

/// What a session hands out for a service of its own process.
///
/// The handle is cut off from the object when the service is withdrawn. Whoever is inside at that moment is waited for,
/// so the object may be destroyed right after `cutOff` although handles on it are still held.
class ServiceHandle final : public GenericObject {
 public:
  /// @throws std::runtime_error naming the service when there is no `target`.
  ServiceHandle(std::string name, AnyObject target);

  Future<AnyValue> metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) override;
  void metaPost(unsigned member, GenericFunctionParameters parameters) override;
  Future<SignalLink> metaConnect(unsigned signal, const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  Future<AnyValue> metaProperty(unsigned property) override;
  Future<void> metaSetProperty(unsigned property, const AnyValue& value) override;
  bool isRemote() const override { return isRemote_; }
  bool isCutOff() const { return gate_.isClosed(); }
  /// What it stands for; empty once it is cut off. Held, it outlives that.
  AnyObject target() const;

  /// Refuses new calls, runs `beforeDrain`, waits for the calls of other threads, lets go of the object. Once.
  /// @param patience  A wait beyond it is logged.
  void cutOff(const std::function<void()>& beforeDrain, std::chrono::milliseconds patience);

 private:
  std::exception_ptr gone() const;
  void drain(std::chrono::milliseconds patience);
  std::shared_ptr<detail::QueuedCall> queued(unsigned method, GenericFunctionParameters parameters);
  template <class R, class Use>
  Future<R> withTarget(Use&& use);

  const std::string name_;
  bool isRemote_ = false;  ///< Written by the constructor.
  CallGate gate_;
  AnyObject target_;  ///< Used only inside the gate, and by `cutOff` once it is drained.
};

}  // namespace mw
