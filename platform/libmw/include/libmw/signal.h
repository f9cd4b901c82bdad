#pragma once

#include <libmw/anyfunction.h>
#include <libmw/trackable.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace mw {

/// Names one connection to a signal; unique in the process, never reused.
using SignalLink = std::uint64_t;
inline constexpr SignalLink kInvalidSignalLink = 0;

/// What is called when a signal is emitted.
///
/// Copies share the callable. A subscriber that throws is logged (category "mw.signal", error), wherever the signal is,
/// and does not keep the others from being called.
class HX_API SignalSubscriber {
 public:
  SignalSubscriber() = default;
  /// @param function  Called with the emission's arguments.
  /// @param callType  Auto and Direct run on the emitting thread, with no lock of the signal held; Queued runs on the
  ///                  event loop, one delivery of this connection at a time, in the order of the emissions.
  explicit SignalSubscriber(AnyFunction function, MetaCallType callType = MetaCallType::Auto);

  /// From any callable.
  template <class F>
  requires(!std::is_same_v<std::decay_t<F>, AnyFunction> &&
           !std::is_same_v<std::decay_t<F>, SignalSubscriber>) explicit SignalSubscriber(F callable,
                                                                                         MetaCallType callType =
                                                                                             MetaCallType::Auto)
      : SignalSubscriber(AnyFunction::from(std::move(callable)), callType) {}

  /// Ties the subscriber to the owner of `lifetime`: once that is destroyed the subscriber is not called any more, and
  /// the destruction waits for calls that run on other threads.
  SignalSubscriber& track(Lifetime::Token lifetime);

  /// Says what it is connected to, for the log: "Door.opened".
  SignalSubscriber& nameSignal(std::string name);

  const AnyFunction& function() const { return function_; }
  MetaCallType callType() const { return callType_; }

  /// Whether the owner that it is tied to has gone, so that the function is never called again.
  bool isOwnerGone() const { return tracked_ && lifetime_.isClosed(); }

  /// Calls the function now, on this thread, unless the owner that it is tied to has gone.
  /// @return False when the owner has gone.
  bool call(GenericFunctionParameters parameters) const;

  /// Logs that it has failed, with what is being thrown.
  void logFailure(SignalLink link) const;

  /// @throws std::runtime_error when there is no function to call.
  void requireFunction() const;

 private:
  AnyFunction function_;
  MetaCallType callType_ = MetaCallType::Auto;
  Lifetime::Token lifetime_;
  bool tracked_ = false;
  std::shared_ptr<const std::string> signal_;
};

/// A list of subscribers, called one after another at each emission.
///
/// Any thread may connect, disconnect, emit, or destroy the signal, also while it is being emitted: an emission goes to
/// those who were connected when it began, except those disconnected meanwhile. `disconnect` returns only when the
/// subscriber is not being called any more; from inside that very call it returns at once. Two subscribers that each
/// disconnect the other, called by two threads at once, therefore wait for each other. A signal that nobody ever
/// connected to costs three words, and one load for each emission.
class HX_API SignalBase {
 public:
  /// Told true when the first subscriber has arrived and false when the last one has left, with no lock held, on a
  /// thread that connects or disconnects. Calls never overlap, and the last one tells how things stand; when threads
  /// connect and disconnect at once, one that came and went meanwhile may pass unmentioned. Must not touch the signal,
  /// which may be going. What it throws is logged.
  using OnSubscribers = std::function<void(bool)>;

  explicit SignalBase(OnSubscribers onSubscribers = {});
  SignalBase(const SignalBase&) = delete;
  SignalBase& operator=(const SignalBase&) = delete;
  /// Disconnects everybody, as `disconnect` does. Emissions that run on other threads end without touching the signal.
  virtual ~SignalBase();

  /// The types of one emission's arguments: "(uint, string)".
  virtual std::string signature() const = 0;
  /// Emits. Overridable, so that a signal may give a trigger from outside another meaning.
  virtual void trigger(GenericFunctionParameters parameters, MetaCallType callType = MetaCallType::Auto);

  /// @return The link to disconnect by.
  SignalLink connect(SignalSubscriber subscriber);
  /// @return False when there is no such connection.
  bool disconnect(SignalLink link);
  void disconnectAll();
  bool hasSubscribers() const;

 protected:
  /// A link that those made before are smaller than, and those made from now on greater.
  static SignalLink nextLink();
  /// Emits to those connections whose link lies between the two.
  void triggerBetween(SignalLink after, SignalLink before, GenericFunctionParameters parameters);

 private:
  class Connections;
  std::shared_ptr<Connections> connections();

  std::shared_ptr<Connections> owned_;  ///< Written once, before `connected_` is.
  std::atomic<bool> connected_{false};  ///< Whether somebody has ever connected.
};

/// A typed signal. Calling the object goes to the virtual `trigger`.
template <class F>
class SignalF;

template <class... P>
class SignalF<void(P...)> : public SignalBase {
 public:
  using SignalBase::SignalBase;

  void operator()(const std::decay_t<P>&... args) {
    detail::withParameters([this](GenericFunctionParameters parameters) { trigger(parameters); }, args...);
  }

  std::string signature() const override {
    std::string text;
    ((text += (text.empty() ? "" : ", ") + typeOf<std::decay_t<P>>()->name), ...);
    return "(" + text + ")";
  }
};

template <class... P>
using Signal = SignalF<void(P...)>;

}  // namespace mw
