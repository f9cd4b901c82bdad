#include "../objects/callqueue.h"
#include "linkparts.h"
#include "metacodec.h"

#include <libmw/remoteerror.h>
#include <libmw/text.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

constexpr std::string_view kReserved = "korvo.";

std::optional<unsigned> numberIn(std::string_view text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

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
    throw std::runtime_error(fmt::format("{}: a method is named SERVICE.METHOD", shorten(target)));
  member = target.substr(dot + 1);
  if (call.object) return call.object;
  const std::string name(target.substr(0, dot));
  if (target.starts_with('@')) throw std::runtime_error(fmt::format("there is no object {}", shorten(name)));
  AnyObject found = reserved_->find(name);
  if (!found) throw NoSuchServiceError(fmt::format("no service named {}", shorten(name)));
  return found;
}

/// Reads what was left of the arguments.
void Link::readRest(Incoming& call) {
  try {
    call.unread.readInto(call.arguments);
  } catch (const ValueError& error) {
    throw std::runtime_error(fmt::format("{}: an argument cannot be kept: {}", shorten(call.target), error.what()));
  }
}

Future<AnyValue> Link::execute(Incoming& call) {
  countBegun(call.size, call.memory);
  CallStop* const stop = call.id ? &call.stop : nullptr;
  try {
    if (!call.refusal.empty()) throw std::runtime_error(fmt::format("{}: {}", shorten(call.target), call.refusal));
    readRest(call);
    if (call.target.starts_with(kReserved)) {
      const Serving serving({call.chain.caller, call.chain.depth + 1}, domain_, stop, call.author);
      return reserved_->call(std::string_view(call.target).substr(kReserved.size()),
                             std::span<const AnyValue>(call.arguments.data(), call.arguments.size()));
    }
    std::string_view member;
    const AnyObject object = targetOf(call, member);
    // What is handed on to the object of another process stays as deep as it is.
    const bool relays = object->isRemote();
    const Serving serving({call.chain.caller, call.chain.depth + (relays ? 0U : 1U)}, domain_, stop, call.author,
                          relays);
    return withReferences(call.arguments, [&](GenericFunctionParameters arguments) {
      return callMember(object, member, arguments, call.id.has_value());
    });
  } catch (const ProtocolError& error) {
    end(error.what());
    return Future<AnyValue>::failed(std::current_exception());
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
      throw NoSuchMethodError(fmt::format("{}.{}: no such method", offered.typeName(), shorten(member)));
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
    if (const auto error = result.exception()) mw::detail::logFailedPost(shorten(nameOf(*call)), error, peer());
    return;
  }
  Draft draft(objects_, MessageType::Response);
  const auto fail = [&](const std::exception_ptr& error) {
    draft.out.number(*call->id);
    draft.out.value(toValue(error));
    draft.out.nil();
    requireSendable(draft.message, "the error");
  };
  try {
    if (result.hasValue()) {
      draft.out.number(*call->id);
      draft.out.nil();
      writeValue(draft.out, AnyReference::of(result.value()), draft.mention, true);
      requireSendable(draft.message, "the result");
    } else {
      fail(result.isCanceled() ? std::make_exception_ptr(std::runtime_error("the call was canceled"))
                               : result.exception());
    }
  } catch (...) {
    draft.beginAnew();
    fail(std::current_exception());
  }
  channel_->send(draft.message, when);
  draft.mention.sent();
}

}  // namespace mw::remote
