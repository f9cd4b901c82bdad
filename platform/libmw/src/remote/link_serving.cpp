#include "../objects/callqueue.h"
#include "../runtime/threadwait.h"
#include "chaincodec.h"
#include "linkparts.h"
#include "metacodec.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

constexpr std::uint32_t kMostArguments = 1024;
constexpr std::string_view kReserved = "korvo.";
std::optional<unsigned> numberIn(std::string_view text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

// --- Receiving ------------------------------------------------------------------------------------------------------

void Link::onFrame(std::span<const std::byte> frame, std::vector<Work>& works) {
  const mw::detail::NoForeignCode scope;
  Reader in(frame);
  const std::uint32_t parts = in.list();
  const auto type = static_cast<MessageType>(in.number());
  const bool isNotification = type == MessageType::Notification && parts == 3;
  if (isNotification || (type == MessageType::Request && parts == 4)) {
    std::optional<std::uint32_t> id;
    if (!isNotification) id = in.number();
    const std::string_view target = in.text();
    if (isNotification && target == kEmit) {
      onEmission(in, frame.size(), works);
    } else {
      queueEmissions(works);
      if (auto work = onCall(in, target, id, frame.size())) works.push_back(std::move(work));
    }
  } else if (type == MessageType::Response && parts == 4) {
    queueEmissions(works);
    onResponse(in);
  } else {
    throw ProtocolError("a message that is neither request, response nor notification");
  }
  if (!in.atEnd()) throw ProtocolError("a message with too many parts");
}

void Link::onPause(std::vector<Work>& works) {
  const mw::detail::NoForeignCode scope;
  queueEmissions(works);
}

AnyValue Link::readValue(Reader& in) {
  if (const auto reference = in.extension(Extension::Object); reference.data() != nullptr) {
    return AnyValue(objects_.read(reference, shared_from_this()));
  }
  return AnyValue(in.value());
}

void Link::onResponse(Reader& in) {
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
}

/// @return How many follow.
std::uint32_t Link::beginArguments(Reader& in, Chain& stated) {
  std::uint32_t count = in.list();
  if (count > 0) {
    if (const auto chain = in.extension(Extension::Chain); chain.data() != nullptr) {
      stated = readChain(chain);
      --count;
    }
  }
  if (count > kMostArguments) throw ProtocolError(fmt::format("a call with more than {} arguments", kMostArguments));
  return count;
}

Work Link::onCall(Reader& in, std::string_view target, std::optional<std::uint32_t> id, std::size_t size) {
  auto call = std::make_shared<Incoming>();
  call->id = id;
  call->size = size;
  call->target = target;
  std::uint32_t count = beginArguments(in, call->chain);
  call->object = targetAtArrival(call->target);
  for (; count > 0; --count) call->arguments.push_back(readValue(in));
  if (target == kAlive && !id) return {};
  const Caller caller = call->chain.caller;
  if (caller && call->chain.depth > 0) {
    countWaiting(call->size);
    Work work = [self = shared_from_this(), call] {
      const Together atOnce;
      self->answer(call, self->execute(*call), Sending::Now);
    };
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
  const std::string_view object = target.substr(0, target.rfind('.'));
  const StrandKey key{caller, std::hash<std::string_view>()(object)};
  return schedule(key, std::move(call));
}

void Link::refuse(const std::shared_ptr<Incoming>& call) {
  waitingBytes_ -= call->size;
  answer(call,
         Future<AnyValue>::failed(std::make_exception_ptr(std::runtime_error(fmt::format(
             "{}: {} calls of this process are running, which is the limit", call->target, options_.callLimit)))),
         Sending::Now);
}

void Link::countWaiting(std::size_t size) {
  if (waitingBytes_.fetch_add(size) > options_.inputLimit) {
    throw ProtocolError(fmt::format("it calls faster than it is served: more than {} bytes wait", options_.inputLimit));
  }
}

Work Link::schedule(const StrandKey& key, std::shared_ptr<Incoming> call) {
  countWaiting(call->size);
  using Entry = Strands<StrandKey, Incoming>::Entry;
  switch (strands_.enter(key, call, options_.callLimit)) {
    case Entry::Begins:
      // What is read until then runs with it.
      return [self = shared_from_this(), key] { self->runStrand(key, self->strands_.next(key, nullptr)); };
    case Entry::Follows:
      return {};
    case Entry::Refused:
      break;
  }
  return [self = shared_from_this(), call = std::move(call)] { self->refuse(call); };
}

void Link::runStrand(const StrandKey& key, std::shared_ptr<Incoming> first) {
  Together together;
  bool wereMore = false;
  for (auto call = std::move(first); call; call = strands_.next(key, call.get())) {
    const bool more = call->next != nullptr;
    together.hold(more);
    auto result = execute(*call);
    together.hold(false);
    if (result.isFinished()) {
      answer(call, result, more ? Sending::Soon : Sending::Now);
      if (std::exchange(wereMore, more) && !more) {
        channel_->flush();  // The last one may have had no answer.
        together.flush();
      }
      continue;
    }
    channel_->flush();  // It may last until that one is answered.
    result.then([self = shared_from_this(), key, call](const Future<AnyValue>& done) {
      self->answer(call, done, Sending::Now);
      if (const auto following = self->strands_.next(key, call.get())) {
        postOrRun([self, key, following] { self->runStrand(key, following); });
      }
    });
    return;
  }
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
    if (call.target.starts_with(kReserved)) {
      const Serving serving({call.chain.caller, call.chain.depth + 1}, domain_);
      return reserved_->call(std::string_view(call.target).substr(kReserved.size()),
                             std::span<const AnyValue>(call.arguments.data(), call.arguments.size()));
    }
    std::string_view member;
    const AnyObject object = targetOf(call, member);
    // What is handed on to the object of another process stays as deep as it is.
    const bool relays = object->isRemote();
    const Serving serving({call.chain.caller, call.chain.depth + (relays ? 0U : 1U)}, domain_, relays);
    return withReferences(call.arguments, [&](GenericFunctionParameters arguments) {
      return callMember(object, member, arguments, call.id.has_value());
    });
  } catch (...) {
    return Future<AnyValue>::failed(std::current_exception());
  }
}

Future<AnyValue> Link::callMember(const AnyObject& object, std::string_view member, GenericFunctionParameters arguments,
                                  bool wantsAnswer) {
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
    // Triggered beyond, it is not waited for here.
    if (object->isRemote()) return object->metaCall(static_cast<unsigned>(signal), arguments);
    object->metaPost(static_cast<unsigned>(signal), arguments);
    return Future<AnyValue>::ready(AnyValue());
  }
  if ((method->flags & kSameProcessOnly) != 0) {
    throw std::runtime_error(fmt::format("{}.{} works only inside the process of {}: its result is an address there",
                                         offered.typeName(), method->name, offered.typeName()));
  }
  if (wantsAnswer || !object->isRemote()) return object->metaCall(method->id, arguments);
  object->metaPost(method->id, arguments);  // Where it lives, its failure is logged.
  return Future<AnyValue>::ready(AnyValue());
}

/// What people call it: peers that know an object go by numbers.
std::string Link::nameOf(const Incoming& call) {
  const auto member = numberIn(std::string_view(call.target).substr(call.target.rfind('.') + 1));
  return call.object && member ? call.object->memberName(*member) : call.target;
}

void Link::answer(const std::shared_ptr<Incoming>& call, const Future<AnyValue>& result, Sending when) {
  if (!result.isFinished()) {
    result.then(
        [self = shared_from_this(), call](const Future<AnyValue>& done) { self->answer(call, done, Sending::Now); });
    return;
  }
  if (!call->id) {
    if (const auto error = result.exception()) mw::detail::logFailedPost(nameOf(*call), error, peer());
    return;
  }
  Draft draft(objects_, MessageType::Response);
  const auto write = [&](const HX::HXValue& error, const AnyReference& value) {
    draft.out.number(*call->id);
    draft.out.value(error);
    writeValue(draft.out, value, draft.mention);
    requireSendable(draft.frame, "the result");
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
    draft.beginAnew();
    write(toValue(std::current_exception()), {});
  }
  channel_->send(draft.frame, when);
  draft.mention.sent();
}

}  // namespace mw::remote
