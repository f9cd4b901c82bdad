#include "link.h"

#include "../runtime/threadwait.h"
#include "metacodec.h"
#include "remoteobject.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

const char* const kCategory = "mw.link";
constexpr std::uint32_t kMostArguments = 1024;
/// Bytes to begin a message with.
constexpr std::size_t kUsualFrame = 128;
constexpr std::string_view kReserved = "korvo.";
constexpr std::string_view kAlive = "korvo.alive";
constexpr std::string_view kEmit = "korvo.emit";

template <class Number>
void put(std::byte*& at, Number number) {
  for (unsigned shift = 8 * sizeof number; shift > 0;) *at++ = static_cast<std::byte>(number >> (shift -= 8) & 0xffU);
}

template <class Number>
void take(const std::byte*& at, Number& number) {
  number = 0;
  for (unsigned i = 0; i < sizeof number; ++i) number = number << 8U | std::to_integer<Number>(*at++);
}

constexpr std::size_t kChainSize = 16;

void writeChain(Writer& out, const Chain& chain) {
  std::array<std::byte, kChainSize> content{};
  std::byte* at = content.data();
  put(at, chain.caller.endpoint);
  put(at, chain.caller.thread);
  put(at, chain.depth);
  out.extension(Extension::Chain, content);
}

Chain readChain(std::span<const std::byte> content) {
  if (content.size() != kChainSize) throw ProtocolError("a chain is 16 bytes");
  Chain chain;
  const std::byte* at = content.data();
  take(at, chain.caller.endpoint);
  take(at, chain.caller.thread);
  take(at, chain.depth);
  return chain;
}

std::uint32_t nextLink() {
  static std::atomic<std::uint32_t> last{0};
  return ++last;
}

std::optional<unsigned> numberIn(std::string_view text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// Whether the calling thread does more calls right after the present one: what these send may then leave together.
thread_local bool moreFollows = false;

void postOrRun(const std::function<void()>& task) {
  if (!defaultLoop().post(task)) task();
}

}  // namespace

std::vector<AnyReference> Incoming::references() const {
  std::vector<AnyReference> all;
  all.reserve(arguments.size());
  for (const AnyValue& argument : arguments) all.push_back(argument.reference());
  return all;
}

/// A subscriber of this process on a signal of the peer's.
class Link::Subscription {
 public:
  explicit Subscription(const SignalSubscriber& subscriber) : subscriber_(subscriber) {}

  /// @return False when the subscriber is of no more use.
  bool deliver(const Incoming& emission) const {
    const auto pass = gate_.enter();
    if (!pass) return true;
    try {
      return subscriber_.call(emission.references());
    } catch (...) {
      log::error(kCategory, "deliver",
                 fmt::format("a subscriber failed: {}", mw::detail::describe(std::current_exception())));
      return true;
    }
  }
  void end() { gate_.drain(); }

 private:
  const SignalSubscriber subscriber_;
  CallGate gate_{1};
};

Link::Link(std::shared_ptr<Channel> channel, Domain domain, const LinkOptions& options)
    : channel_(std::move(channel)), domain_(domain), options_(options) {}

Link::~Link() { channel_->end("nobody uses it"); }

void Link::start(std::shared_ptr<ReservedService> reserved, OnEnd onEnd) {
  reserved_ = std::move(reserved);
  onEnd_ = std::move(onEnd);
  channel_->start(shared_from_this());
  tick();
}

// --- Liveness and end -----------------------------------------------------------------------------------------------

void Link::tick() {
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
  }
  if (const auto silence = channel_->silence(); silence >= 3 * options_.heartbeat) {
    return channel_->end(fmt::format("nothing was heard of it for {} ms", silence.count()));
  }
  tell(kAlive);
  defaultLoop().post(
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->tick();
      },
      options_.heartbeat);
}

std::exception_ptr Link::endedError() const {
  return std::make_exception_ptr(
      std::runtime_error(fmt::format("the connection to {} has ended: {}", peer(), ended_.value_or("unknown reason"))));
}

void Link::onEnd(const std::string& reason) {
  std::unordered_map<std::uint32_t, Pending> failed;
  std::exception_ptr error;
  {
    const std::lock_guard lock(mutex_);
    ended_ = reason;
    error = endedError();
    failed.swap(pending_);
  }
  {
    const mw::detail::NoForeignCode scope;
    for (auto& [id, pending] : failed) pending.promise.trySetException(error);
  }
  // Not held by whoever ends it: the task may be the last that knows the link.
  if (const auto self = weak_from_this().lock()) postOrRun([self, reason] { self->cleanUp(reason); });
}

void Link::cleanUp(const std::string& reason) {
  if (reserved_) reserved_->end();
  objects_.clear();
  std::unordered_map<std::uint64_t, std::shared_ptr<Subscription>> subscriptions;
  {
    const std::lock_guard lock(mutex_);
    subscriptions.swap(subscriptions_);
  }
  subscriptions.clear();
  gone_.trySetValue();  // First: who is told of the end may wait for it.
  if (onEnd_) onEnd_(reason);
}

std::size_t Link::pendingCount() const {
  const std::lock_guard lock(mutex_);
  return pending_.size();
}

// --- Calling --------------------------------------------------------------------------------------------------------

void Link::writeValue(Writer& out, const AnyReference& value, ObjectTable::Mention& mention) {
  const AnyReference content = value.content();
  if (!content) return out.nil();
  if (const auto* plain = content.getIf<HX::HXValue>()) return out.value(*plain);
  if (content.type()->toObject) return objects_.write(out, content.type()->toObject(content.data()), *this, mention);
  HX::HXValue converted;
  if (!content.toValue(converted)) {
    throw std::runtime_error(fmt::format("a {} cannot go to another process", content.type()->name));
  }
  out.value(converted);
}

/// What exceeds a limit would end the link at the peer; here it fails the call that it belongs to.
void Link::requireSendable(const Bytes& frame, std::string_view what) const {
  if (frame.size() <= options_.depthLimit) return;  // It takes a byte to go one deeper.
  try {
    FrameSplitter(options_.frameLimit, options_.depthLimit).advance(frame);
  } catch (const ProtocolError& error) {
    throw std::runtime_error(fmt::format("{} cannot go to another process: {}", what, error.what()));
  }
}

void Link::writeCall(Writer& out, std::string_view target, const std::optional<Chain>& chain,
                     GenericFunctionParameters parameters, ObjectTable::Mention& mention) {
  out.text(target);
  out.list(static_cast<std::uint32_t>(parameters.size() + (chain ? 1 : 0)));
  if (chain) writeChain(out, *chain);
  for (const AnyReference& parameter : parameters) writeValue(out, parameter, mention);
}

Future<AnyValue> Link::call(std::string_view target, GenericFunctionParameters parameters, Sending when, bool returns) {
  Promise<AnyValue> promise;
  auto future = promise.future();
  std::uint32_t id = 0;
  try {
    const Chain chain = chainOfThisThread();
    Expectation expectation = expectAnswer(channel_, domain_, when == Sending::Now);
    {
      const std::lock_guard lock(mutex_);
      if (ended_) return Future<AnyValue>::failed(endedError());
      id = ++lastRequest_;
      pending_.emplace(id, Pending{std::move(promise), returns, std::move(expectation)});
    }
    Bytes frame;
    frame.reserve(kUsualFrame);
    ObjectTable::Mention mention(objects_);
    Writer out(frame);
    out.list(4);
    out.number(static_cast<std::uint32_t>(MessageType::Request));
    out.number(id);
    writeCall(out, target, chain, parameters, mention);
    requireSendable(frame, "the call");
    channel_->send(std::move(frame), when);
    mention.sent();
  } catch (...) {
    takePending(id);
    return Future<AnyValue>::failed(std::current_exception());
  }
  return future;
}

void Link::post(std::string_view target, GenericFunctionParameters parameters) {
  {
    const std::lock_guard lock(mutex_);
    if (ended_) std::rethrow_exception(endedError());
  }
  send(target, parameters, true);
}

void Link::send(std::string_view target, GenericFunctionParameters parameters, bool inChain) {
  std::optional<Chain> chain;
  if (inChain) chain = chainOfThisThread();
  Bytes frame;
  frame.reserve(kUsualFrame);
  ObjectTable::Mention mention(objects_);
  Writer out(frame);
  out.list(3);
  out.number(static_cast<std::uint32_t>(MessageType::Notification));
  writeCall(out, target, chain, parameters, mention);
  requireSendable(frame, "the message");
  channel_->send(std::move(frame), moreFollows ? Sending::Soon : Sending::Now);
  mention.sent();
}

void Link::emit(GenericFunctionParameters parameters) {
  try {
    send(kEmit, parameters, false);
  } catch (const std::exception& error) {
    log::warning(kCategory, "emit", fmt::format("an emission does not reach {}: {}", peer(), error.what()));
  }
}

std::optional<Link::Pending> Link::takePending(std::uint32_t id) {
  const std::lock_guard lock(mutex_);
  auto found = pending_.extract(id);
  if (!found) return std::nullopt;
  return std::move(found.mapped());
}

void Link::giveBack(std::uint32_t id, std::uint32_t references) {
  objects_.forget(id);
  tell("korvo.release", id, references);
}

Future<SignalLink> Link::connect(std::uint32_t object, unsigned signal, const SignalSubscriber& subscriber) {
  const std::uint32_t link = nextLink();
  {
    const std::lock_guard lock(mutex_);
    if (!ended_) subscriptions_.emplace(link, std::make_shared<Subscription>(subscriber));
  }
  return ask("korvo.connect", object, signal, link)
      .then([self = shared_from_this(), link](const Future<AnyValue>& done) {
        if (done.hasValue()) return Future<SignalLink>::ready(link);
        std::shared_ptr<Subscription> unused;  // Goes after the lock.
        {
          const std::lock_guard lock(self->mutex_);
          if (auto found = self->subscriptions_.extract(link)) unused = std::move(found.mapped());
        }
        return done.isCanceled() ? Future<SignalLink>::canceled() : Future<SignalLink>::failed(done.exception());
      });
}

Future<void> Link::disconnect(SignalLink link) {
  std::shared_ptr<Subscription> subscription;
  {
    const std::lock_guard lock(mutex_);
    const auto found = subscriptions_.find(link);
    if (found == subscriptions_.end()) return makeReadyFuture();
    subscription = std::move(found->second);
    subscriptions_.erase(found);
  }
  subscription->end();
  return ask("korvo.disconnect", static_cast<std::uint32_t>(link)).andThen([](const AnyValue&) {});
}

// --- Receiving ------------------------------------------------------------------------------------------------------

Work Link::onFrame(std::span<const std::byte> frame) {
  const mw::detail::NoForeignCode scope;
  Reader in(frame);
  const std::uint32_t parts = in.list();
  const auto type = static_cast<MessageType>(in.number());
  Work work;
  if (type == MessageType::Request && parts == 4) {
    work = onCall(in, true, frame.size());
  } else if (type == MessageType::Notification && parts == 3) {
    work = onCall(in, false, frame.size());
  } else if (type == MessageType::Response && parts == 4) {
    work = onResponse(in);
  } else {
    throw ProtocolError("a message that is neither request, response nor notification");
  }
  if (!in.atEnd()) throw ProtocolError("a message with too many parts");
  return work;
}

AnyValue Link::readValue(Reader& in) {
  if (const auto reference = in.extension(Extension::Object); reference.data() != nullptr) {
    return AnyValue(objects_.read(reference, shared_from_this()));
  }
  return AnyValue(in.value());
}

Work Link::onResponse(Reader& in) {
  const std::uint32_t id = in.number();
  auto pending = takePending(id);
  if (!pending) throw ProtocolError(fmt::format("a response to a request {} that was not made", id));
  try {
    if (in.nil()) {
      AnyValue result = readValue(in);
      pending->promise.trySetValue(pending->returns ? std::move(result) : AnyValue());
    } else {
      pending->promise.trySetException(errorFrom(in.value()));
      readValue(in);
    }
  } catch (const ProtocolError& error) {
    const std::string text = fmt::format("the answer of {} cannot be read: {}", peer(), error.what());
    pending->promise.trySetException(std::make_exception_ptr(std::runtime_error(text)));
    throw;
  }
  return {};
}

Work Link::onCall(Reader& in, bool isRequest, std::size_t size) {
  auto call = std::make_shared<Incoming>();
  call->size = size;
  call->isRequest = isRequest;
  if (isRequest) call->id = in.number();
  call->target = in.text();
  std::uint32_t count = in.list();
  if (count > 0) {
    if (const auto chain = in.extension(Extension::Chain); chain.data() != nullptr) {
      call->chain = readChain(chain);
      --count;
    }
  }
  if (count > kMostArguments) throw ProtocolError(fmt::format("a call with more than {} arguments", kMostArguments));
  call->object = targetAtArrival(call->target);
  for (; count > 0; --count) call->arguments.push_back(readValue(in));
  if (call->target == kAlive && !isRequest) return {};
  if (call->target == kEmit) return onEmission(std::move(call));
  const Caller caller = call->chain.caller;
  if (caller && call->chain.depth > 0) {
    countWaiting(*call);
    Work work = [self = shared_from_this(), call] { self->answer(call, self->execute(*call), Sending::Now); };
    if (runInChain(caller, domain_, work)) return {};
    return [self = shared_from_this(), call, work = std::move(work)] {
      if (++self->unawaited_ > self->options_.callLimit) {
        self->refuse(call);
      } else {
        work();
      }
      --self->unawaited_;
    };
  }
  const std::string_view target = call->target;
  const std::string_view object = target.substr(0, target.rfind('.'));
  const StrandKey key{caller, std::hash<std::string_view>()(object)};
  return schedule(key, std::move(call), options_.callLimit);
}

void Link::refuse(const std::shared_ptr<Incoming>& call) {
  waitingBytes_ -= call->size;
  answer(call,
         Future<AnyValue>::failed(std::make_exception_ptr(std::runtime_error(fmt::format(
             "{}: {} calls of this process are running, which is the limit", call->target, options_.callLimit)))),
         Sending::Now);
}

void Link::countWaiting(const Incoming& call) {
  if (waitingBytes_.fetch_add(call.size) > options_.inputLimit) {
    throw ProtocolError(fmt::format("it calls faster than it is served: more than {} bytes wait", options_.inputLimit));
  }
}

Work Link::schedule(const StrandKey& key, std::shared_ptr<Incoming> call, std::size_t most) {
  countWaiting(*call);
  auto first = strands_.enter(key, call, most);
  if (call) return [self = shared_from_this(), call = std::move(call)] { self->refuse(call); };
  if (!first) return {};
  return [self = shared_from_this(), key, first = std::move(first)] { self->runStrand(key, first); };
}

void Link::runStrand(const StrandKey& key, std::shared_ptr<Incoming> first) {
  bool more = false;
  for (auto call = std::move(first); call; call = strands_.next(key, more)) {
    moreFollows = more;
    auto result = execute(*call);
    moreFollows = false;
    if (result.isFinished()) {
      answer(call, result, more ? Sending::Soon : Sending::Now);
      continue;
    }
    result.then([self = shared_from_this(), key, call](const Future<AnyValue>& done) {
      self->answer(call, done, Sending::Now);
      bool others = false;
      if (const auto following = self->strands_.next(key, others)) {
        postOrRun([self, key, following] { self->runStrand(key, following); });
      }
    });
    return;
  }
}

Work Link::onEmission(std::shared_ptr<Incoming> emission) {
  const auto* number = emission->arguments.empty() ? nullptr : emission->arguments.front().getIf<HX::HXValue>();
  if (!number || !(number->isInt() || number->isInt64())) throw ProtocolError("an emission that names no link");
  const auto link = static_cast<std::uint64_t>(number->toInt64());
  const std::lock_guard lock(mutex_);
  const auto found = subscriptions_.find(link);
  if (found == subscriptions_.end()) return {};  // Disconnected meanwhile.
  emission->arguments.erase(emission->arguments.begin());
  emission->target = fmt::format("{}{}", kEmit, link);
  return schedule({{}, reinterpret_cast<std::uintptr_t>(found->second.get())}, std::move(emission), SIZE_MAX);
}

// --- Serving --------------------------------------------------------------------------------------------------------

/// The object that is called, held from now on: what was sent before the end of the link is done after it. Empty when
/// there is none yet, and for what the process itself answers.
AnyObject Link::targetAtArrival(std::string_view target) const {
  if (target.starts_with(kReserved)) return {};
  if (!target.starts_with('@')) return reserved_->find(std::string(target.substr(0, target.rfind('.'))));
  const auto id = numberIn(target.substr(1, target.rfind('.') - 1));
  return id ? objects_.leased(*id) : AnyObject();
}

AnyObject Link::targetOf(const Incoming& call, std::string_view& member) const {
  const std::string_view target = call.target;
  const std::size_t dot = target.rfind('.');
  if (dot == std::string_view::npos)
    throw std::runtime_error(fmt::format("{}: a method is named SERVICE.METHOD", target));
  member = target.substr(dot + 1);
  if (call.object) return call.object;
  const std::string name(target.substr(0, dot));
  if (target.starts_with('@')) throw std::runtime_error(fmt::format("there is no object {}", name));
  AnyObject found = reserved_->find(name);
  if (!found) throw std::runtime_error(fmt::format("no service named {}", name));
  return found;
}

Future<AnyValue> Link::execute(const Incoming& call) {
  waitingBytes_ -= call.size;
  try {
    if (call.target.starts_with(kEmit)) {
      const Serving serving({}, domain_);
      const std::uint64_t link = numberIn(std::string_view(call.target).substr(kEmit.size())).value_or(0);
      std::shared_ptr<Subscription> subscription;
      {
        const std::lock_guard lock(mutex_);
        if (const auto found = subscriptions_.find(link); found != subscriptions_.end()) subscription = found->second;
      }
      if (subscription && !subscription->deliver(call)) disconnect(link);
      return Future<AnyValue>::ready(AnyValue());
    }
    if (call.target.starts_with(kReserved)) {
      const Serving serving({call.chain.caller, call.chain.depth + 1}, domain_);
      return reserved_->call(std::string_view(call.target).substr(kReserved.size()), call.arguments);
    }
    std::string_view member;
    const AnyObject object = targetOf(call, member);
    // What is handed on to the object of another process stays as deep as it is.
    const bool relays = object->isRemote();
    const Serving serving({call.chain.caller, call.chain.depth + (relays ? 0U : 1U)}, domain_, relays);
    return callMember(object, member, call);
  } catch (...) {
    return Future<AnyValue>::failed(std::current_exception());
  }
}

Future<AnyValue> Link::callMember(const AnyObject& object, std::string_view member, const Incoming& call) {
  const std::vector<AnyReference> arguments = call.references();
  const MetaObject& offered = object->metaObject();
  const MetaMethod* method = nullptr;
  int signal = -1;
  if (const auto id = numberIn(member)) {
    method = offered.method(*id);
    signal = static_cast<int>(*id);
  } else {
    signal = offered.signalId(member);
    if (signal < 0 || !offered.findMethods(member).empty()) method = &offered.resolve(member, arguments);
  }
  if (!method) {
    const auto signals = offered.signals();
    const auto isMeant = [&](const MetaSignal& one) { return static_cast<int>(one.id) == signal; };
    if (std::none_of(signals.begin(), signals.end(), isMeant)) {
      throw std::runtime_error(fmt::format("{}.{}: no such method", offered.typeName(), member));
    }
    object->metaPost(static_cast<unsigned>(signal), arguments);
    return Future<AnyValue>::ready(AnyValue());
  }
  if ((method->flags & kSameProcessOnly) != 0) {
    throw std::runtime_error(fmt::format("{}.{} works only inside the process of {}: its result is an address there",
                                         offered.typeName(), method->name, offered.typeName()));
  }
  return object->metaCall(method->id, arguments);
}

void Link::answer(const std::shared_ptr<Incoming>& call, const Future<AnyValue>& result, Sending when) {
  if (!call->isRequest) {
    if (result.isFinished() && result.hasError()) {
      log::warning(kCategory, "post", fmt::format("{} of {}: {}", call->target, peer(), result.error()));
    }
    return;
  }
  if (!result.isFinished()) {
    result.then(
        [self = shared_from_this(), call](const Future<AnyValue>& done) { self->answer(call, done, Sending::Now); });
    return;
  }
  Bytes frame;
  frame.reserve(kUsualFrame);
  ObjectTable::Mention mention(objects_);
  const auto write = [&](const HX::HXValue& error, const AnyReference& value) {
    frame.clear();
    mention.takeBack();
    Writer out(frame);
    out.list(4);
    out.number(static_cast<std::uint32_t>(MessageType::Response));
    out.number(call->id);
    out.value(error);
    writeValue(out, value, mention);
    requireSendable(frame, "the result");
  };
  try {
    if (result.hasValue()) {
      write({}, AnyReference::of(result.value()));
    } else {
      write(toValue(result.isCanceled() ? std::make_exception_ptr(std::runtime_error("the call was canceled"))
                                        : result.exception()),
            {});
    }
  } catch (...) {
    write(toValue(std::current_exception()), {});
  }
  channel_->send(std::move(frame), when);
  mention.sent();
}

}  // namespace mw::remote
