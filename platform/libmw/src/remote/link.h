#pragma once

#include "budget.h"
#include "callstop.h"
#include "chain.h"
#include "channel.h"
#include "linkauthors.h"
#include "objecttable.h"
#include "pendingcalls.h"
#include "strands.h"
#include "subscription.h"
#include "waiting.h"

#include <hxerror/mutex.h>
#include <libmw/future.h>
#include <libmw/genericobject.h>
#include <libmw/local.h>
#include <libmw/trackable.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace mw::remote {

class OutputBatch;

/// A call that has come: what a strand does one after another.
struct Incoming {
  Incoming() = default;
  Incoming(const Incoming&) = delete;
  Incoming& operator=(const Incoming&) = delete;
  /// Those behind it go one by one, not inside one another.
  ~Incoming() {
    for (auto rest = std::move(next); rest && rest.use_count() == 1;) rest = std::move(rest->next);
  }

  enum class State : std::uint8_t {
    Waits,
    Runs,
    Ended,
    Dropped,    ///< Given up before it ran: it does not.
    Abandoned,  ///< Given up while it ran: those behind it do not wait for it.
  };
  /// @return Whether the call was in the state `from`, and is in `to` now.
  bool change(State from, State to) { return state.compare_exchange_strong(from, to); }
  /// Has `result` cancelled when the call is given up.
  void cancelOnStop(const Future<AnyValue>& result) {
    onStop.emplace(stop.token(), [result] {
      auto given = result;
      given.cancel();
    });
  }
  /// Gives back what it holds once it has been answered, for it may stay a while in its queue.
  void clear() {
    arguments.clear();
    unread = {};
    object.reset();
  }

  std::optional<std::uint32_t> id;  ///< Of the request; none when no answer is wanted.
  std::size_t size = 0;             ///< Of the message, in bytes.
  std::size_t memory = 0;           ///< That it takes until it is begun, in bytes.
  Chain chain;                      ///< Without a caller when the peer states none.
  HX::Author author;                ///< In whose name it is made.
  std::string target;
  /// What is called: held from its arrival, because what gives it back, or the end of the link, may be right behind.
  AnyObject object;
  ArgumentValues arguments;
  UnreadValues unread;  ///< Of the arguments.
  std::atomic<State> state{State::Waits};
  CallStop stop;
  std::optional<std::stop_callback<std::function<void()>>> onStop;
  unsigned heartbeats = 0;         ///< That it has waited for; under the lock of its strand.
  std::string refusal;             ///< Why it cannot be executed; empty when it can.
  std::shared_ptr<Incoming> next;  ///< On its strand.
};

/// What a peer may ask of the process itself, under the service name "korvo".
class ReservedService {
 public:
  virtual ~ReservedService() = default;
  /// @param method  Without the service name.
  virtual Future<AnyValue> call(std::string_view method, std::span<const AnyValue> arguments) = 0;
  /// Finds a service of this process by name; empty when there is none. Must not wait.
  virtual AnyObject find(const std::string& service) = 0;
  /// The link has ended. Takes back what the peer brought; called once, on the event loop.
  virtual void end() = 0;
};

/// One connected process: calls, objects and signals over one channel.
///
/// Symmetric: either side calls, hosts, connects. Everything that this side lent to the peer, and everything that came
/// by it, ends with the link.
///
/// @par Threads  Any. No lock is held while objects or continuations are called.
class HX_API Link final : public ChannelSink, public std::enable_shared_from_this<Link> {
 public:
  using OnEnd = std::function<void(const std::string& reason)>;

  /// @param domain  The session that the link belongs to.
  Link(std::shared_ptr<Channel> channel, Domain domain, const LinkOptions& options);
  ~Link() override;

  /// Begins to receive. Once.
  /// @param reserved  Answers what is asked of the process itself.
  /// @param onEnd     Called once, on the event loop, after everything that came by the link has gone.
  void start(std::shared_ptr<ReservedService> reserved, OnEnd onEnd);
  /// Ends the link: pending calls fail, saying `reason`.
  void end(const std::string& reason) { channel_->end(reason); }
  /// Finished when the link has ended and everything that came by it has gone.
  Future<void> gone() const { return gone_.future(); }

  /// Calls a member of the peer.
  /// @param target   As docs/wire names it.
  /// @param returns  False for methods that return nothing: their result is then empty.
  Future<AnyValue> call(std::string_view target, GenericFunctionParameters parameters, Calling then, bool returns);
  /// The same without an answer.
  void post(std::string_view target, GenericFunctionParameters parameters);
  /// Calls what the peer's process itself offers.
  template <class... Args>
  Future<AnyValue> ask(std::string_view target, const Args&... args) {
    return mw::detail::withParameters(
        [&](GenericFunctionParameters p) { return call(target, p, Calling::MayWait, true); }, args...);
  }
  template <class... Args>
  void tell(std::string_view target, const Args&... args) {
    mw::detail::withParameters([&](GenericFunctionParameters p) { send(target, p, false); }, args...);
  }

  /// Sends what a signal that the peer has connected emits. Never throws; what cannot cross is logged.
  /// @param number  Of the connection, as the peer has given it.
  void emit(std::uint32_t number, GenericFunctionParameters emitted);

  Future<SignalLink> connect(std::uint32_t object, unsigned signal, const SignalSubscriber& subscriber);
  /// @return None when there is no such connection.
  std::optional<Future<void>> disconnect(SignalLink link);

  /// A RemoteObject has gone, to which so many references had come.
  void giveBack(std::uint32_t id, std::uint32_t references);

  ObjectTable& objects() { return objects_; }
  LinkAuthors& authors() { return authors_; }
  const std::string& peer() const { return channel_->peer(); }
  bool hasEnded() const;
  /// How many there are in the process. For tests.
  static std::size_t count();
  /// How many calls wait for their answer. For diagnosis.
  std::size_t pendingCount() const;
  /// What is still counted of calls of the peer: those that run, and bytes of those that wait. For diagnosis.
  std::size_t servingCount() const { return running_ + unawaited_ + waitingBytes_; }

  void onFrame(const Frame& frame, std::vector<Work>& works) override;
  void onPause(std::vector<Work>& works) override;
  bool isIdle() const override;
  void onEnd(const std::string& reason) override;

 private:
  struct Pending {
    Promise<AnyValue> promise;
    bool returns;
    Expectation expectation;
  };
  void expectMore();
  template <class Write>
  void notify(const Write& write);
  void send(std::string_view target, GenericFunctionParameters parameters, bool inChain);
  struct Header {
    Chain chain;
    LinkAuthors::Stated author;
  };
  void writeCall(Writer& out, std::string_view target, const std::optional<Header>& header,
                 GenericFunctionParameters parameters, ObjectTable::Mention& mention);
  bool writeValue(Writer& out, const AnyReference& value, ObjectTable::Mention& mention, bool isLast);
  void writeEmitted(Writer& out, GenericFunctionParameters emitted, ObjectTable::Mention& mention);
  void requireSendable(const Message& message, std::string_view what) const;
  AnyValue readValue(Reader& in);
  std::optional<Pending> takePending(std::uint32_t id);
  std::exception_ptr endedError() const HX_REQUIRES(mutex_);

  void readArguments(Reader& in, std::uint32_t count, const Frame& frame, ArgumentValues& arguments,
                     UnreadValues& unread);
  Work onResponse(Reader& in, const Frame& frame);
  void finish(Pending& pending, Reader& in);
  static std::uint32_t beginArguments(Reader& in, Chain& stated);
  static std::uint32_t beginArguments(Reader& in, Chain& stated, LinkAuthors::Header& author);
  void onAuthor(Reader& in);
  void tellAuthor(std::uint8_t number, std::string_view text);
  Work onCall(Reader& in, std::string_view target, std::optional<std::uint32_t> id, const Frame& frame);
  class Thread;
  std::string limitOfLink() const;
  void refuse(const std::shared_ptr<Incoming>& call, const std::string& limit);
  void fail(const std::shared_ptr<Incoming>& call, std::string_view reason);
  Work giveUp(Reader& in);
  void relay(const StrandKey& key, const std::shared_ptr<Incoming>& call, const Future<AnyValue>& result);
  void continueStrand(const StrandKey& key, const Incoming& after);
  Work scheduleNested(const std::shared_ptr<Incoming>& call);
  void serveNested(const std::shared_ptr<Incoming>& call);
  void passBy(const std::shared_ptr<Incoming>& call);
  void refuseNested(const std::shared_ptr<Incoming>& call, const std::string& limit);
  void forgetNested(const std::shared_ptr<Incoming>& call);
  void endWaits();
  void reportWaits();
  void countWaiting(std::size_t size, std::size_t memory);
  void countBegun(std::size_t size, std::size_t memory);
  void drop(Incoming& call);
  Work schedule(const StrandKey& key, std::shared_ptr<Incoming> call);
  void onEmission(Reader& in, const Frame& frame, std::vector<Work>& works);
  void queueEmissions(std::vector<Work>& works);
  bool takeEmissions(Subscription& subscription, std::vector<Emission>& taken);
  void deliver(SignalLink link, Subscription& subscription);
  bool deliver(SignalLink link, const Subscription& subscription, std::span<Emission> emissions, OutputBatch& batch,
               bool more);
  void release(Emission& emission);
  static void readRest(Incoming& call);
  Future<AnyValue> execute(Incoming& call);
  static void giveUp(std::uint64_t link, mw::detail::FutureStateBase& answer);
  static Future<AnyValue> callMember(const AnyObject& object, std::string_view member,
                                     GenericFunctionParameters arguments, bool wantsAnswer);
  static std::string nameOf(const Incoming& call);
  AnyObject calledObject(std::string_view target);
  AnyObject targetAtArrival(std::string_view target) const;
  AnyObject targetOf(const Incoming& call, std::string_view& member) const;
  void runStrand(const StrandKey& key, std::shared_ptr<Incoming> first);
  void answer(const std::shared_ptr<Incoming>& call, const Future<AnyValue>& result, Sending when);
  void tick();
  void cleanUp(const std::string& reason);

  const std::uint64_t number_;
  const std::shared_ptr<Channel> channel_;
  const Domain domain_;
  const LinkOptions options_;
  ObjectTable objects_;
  LinkAuthors authors_;
  Strands<StrandKey, Incoming> strands_;
  std::shared_ptr<ReservedService> reserved_;  // set once, by `start`
  OnEnd onEnd_;                                // likewise
  Promise<void> gone_;
  std::atomic<std::size_t> unawaited_{0};     // calls of chains that run although no thread waits in the chain
  std::atomic<std::size_t> running_{0};       // calls that have a thread
  std::atomic<std::size_t> waitingBytes_{0};  // of calls that have come and are not begun
  Budget::Share waiting_;                     // the memory that they take

  /// For the thread that reads the channel: emissions to one subscription, that came one after another.
  struct Arrived {
    SignalLink link = kInvalidSignalLink;
    std::vector<Emission> emissions;
  } arrived_;

  /// Likewise: what was called last in this reading. It is held by the calls, not by this: what goes here goes where
  /// nothing foreign may run.
  struct Called {
    std::string target;
    std::weak_ptr<GenericObject> object;
    std::uintptr_t strand = 0;
    HX::Author peer;  ///< Empty until it is asked for.
  } called_;

  mutable HX::Mutex mutex_;
  std::optional<std::string> ended_ HX_GUARDED_BY(mutex_);  // the reason
  PendingCalls<Pending> pending_ HX_GUARDED_BY(mutex_);
  std::unordered_map<std::uint64_t, std::shared_ptr<Subscription>> subscriptions_ HX_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<Incoming>> nested_ HX_GUARDED_BY(mutex_);  // calls within chains
};

}  // namespace mw::remote
