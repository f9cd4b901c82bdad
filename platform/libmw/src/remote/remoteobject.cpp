#include "remoteobject.h"

#include "../runtime/threadwait.h"
#include "link.h"

#include <array>
#include <charconv>

#include <fmt/format.h>

namespace mw::remote {
namespace {

/// "@12.7": member 7 of object 12.
class Target {
 public:
  /// @param object  "@12."
  Target(std::string_view object, unsigned member) {
    object.copy(text_.data(), object.size());
    end_ = std::to_chars(text_.data() + object.size(), text_.data() + text_.size(), member).ptr;
  }
  operator std::string_view() const { return {text_.data(), static_cast<std::size_t>(end_ - text_.data())}; }

 private:
  std::array<char, 24> text_{};
  const char* end_ = nullptr;
};

}  // namespace

RemoteObject::RemoteObject(std::shared_ptr<Link> link, std::uint32_t id, MetaObject metaObject)
    : link_(std::move(link)), id_(id), name_(fmt::format("@{}.", id)) {
  setMetaObject(std::move(metaObject));
  setNumber(id);
}

RemoteObject::~RemoteObject() { link_->giveBack(id_, references_.load()); }

Future<AnyValue> RemoteObject::metaCall(unsigned method, GenericFunctionParameters parameters, MetaCallType callType) {
  const MetaMethod* const known = metaObject().method(method);
  const bool returns = !known || !known->resultType || known->resultType->kind != TypeKind::Void;
  const auto then = callType == MetaCallType::Queued      ? Calling::MakesMore
                    : mw::detail::AboutToWait::takeHere() ? Calling::Waits
                                                          : Calling::MayWait;
  return link_->call(Target(name_, method), parameters, then, returns);
}

void RemoteObject::metaPost(unsigned member, GenericFunctionParameters parameters) {
  if (metaObject().method(member)) return link_->post(Target(name_, member), parameters);
  metaCall(member, parameters, MetaCallType::Direct).value();
}

Future<SignalLink> RemoteObject::metaConnect(unsigned signal, const SignalSubscriber& subscriber) {
  try {
    SignalSubscriber named = subscriber;
    named.requireFunction();
    return link_->connect(id_, signal, named.nameSignal(memberName(signal)));
  } catch (...) {
    return Future<SignalLink>::failed(std::current_exception());
  }
}

Future<void> RemoteObject::metaDisconnect(SignalLink link) {
  if (auto gone = link_->disconnect(link)) return *std::move(gone);
  return noSuchLink(link);
}

Future<AnyValue> RemoteObject::metaProperty(unsigned property) {
  return link_->ask("korvo.property", static_cast<int>(id_), static_cast<int>(property));
}

Future<void> RemoteObject::metaSetProperty(unsigned property, const AnyValue& value) {
  return link_->ask("korvo.setProperty", static_cast<int>(id_), static_cast<int>(property), value)
      .andThen([](const AnyValue&) {});
}

}  // namespace mw::remote
