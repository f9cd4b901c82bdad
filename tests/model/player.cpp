#include "player.h"

#include <hxerror/hxerror.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::model {
namespace {

/// An error with all that callers may rely on: lines are shown when they are stated ones.
std::string shown(const HXError& error) {
  static constexpr std::array kStated{0, 535, 902, 907, 1175, 1179};
  const bool stated = std::find(kStated.begin(), kStated.end(), error.line()) != kStated.end();
  return fmt::format("{} ({}:{})", error.what(), error.file(), stated ? std::to_string(error.line()) : "some line");
}

/// A list of keys in the order of the table, which is none to rely on.
bool isUnordered(const Call& call) {
  return call.name() == "getDataList" || call.name() == "getDataListName" || call.name() == "getMicroEventList" ||
         (call.name() == "getDescriptionList" && call.argument('K').asList().empty());
}

}  // namespace

mw::AnyValue callMethod(mw::GenericObject& memory, const Call& call) {
  std::vector<mw::AnyReference> arguments;
  for (const char* letter = call.what().arguments; *letter; ++letter) {
    arguments.push_back(mw::AnyReference::of(call.argument(*letter)));
  }
  return memory.metaCall(memory.metaObject().resolve(call.what().name, arguments).id, arguments).take();
}

std::string shown(const Call& call, const mw::AnyValue& result) {
  if (!result) return "done";
  HXValue value;
  if (!result.reference().toValue(value)) return "an address";
  if (isUnordered(call)) std::sort(value.editList().begin(), value.editList().end());
  return value.toString(HXValue::Verbosity::Typed);
}

std::string endOf(const std::function<std::string()>& action) {
  try {
    return action();
  } catch (const HXError& error) {
    return shown(error);
  } catch (const std::runtime_error& error) {
    return std::string("runtime error ") + error.what();
  } catch (const std::logic_error& error) {
    return std::string("logic error ") + error.what();
  }
}

void Player::playAll(const Calls& calls) {
  int time = 0;
  for (auto next = calls.begin(); next != calls.end(); ++next) {
    subject_->setTime(++time);
    if (next->name() == "react") {
      const auto count = std::min<std::ptrdiff_t>(calls.end() - next - 1, static_cast<std::ptrdiff_t>(next->number));
      reactions_[next->text('s')].push_back({Calls(next + 1, next + 1 + count), next->text('e')});
      next += count;
    } else {
      record(*next);
    }
  }
}

void Player::record(const Call& call) {
  const std::string end = endOf([&] { return perform(call); });
  seen_.push_back(toText(call) + " -> " + end);
}

void Player::called(const std::string& service, const std::string& text) {
  seen_.push_back("  " + service + " is told " + text);
  auto& waiting = reactions_[service];
  if (waiting.empty()) return;
  const Reaction reaction = std::move(waiting.front());
  waiting.pop_front();
  const auto before = std::exchange(nested_, true);
  const std::shared_ptr<void> restored(nullptr, [&](void*) { nested_ = before; });
  for (const Call& call : reaction.calls) {
    seen_.push_back("  " + service + " calls " + toText(call) + " -> " + perform(call));
  }
  if (reaction.ending == "HXError") throw HXError(service, "heard", "failed");
  if (reaction.ending == "runtime error") throw std::runtime_error("failed");
  if (reaction.ending == "logic error") throw std::logic_error("failed");
}

std::string Player::perform(const Call& call) {
  const std::string_view name = call.name();
  const bool mayMove = call.service < kListeners || (call.service < kOffered && !nested_);
  if (name == "burst") {
    for (int i = 0; i < 52; ++i) subject_->methods().call("raiseEvent", call.text('k'), i);
  } else if (name == "poke") {
    if (addresses_.contains(call.text('k'))) *addresses_[call.text('k')] = static_cast<int>(call.number);
  } else if (name == "follow") {
    return fmt::format("signal {}", subject_->follow(call.text('k')));
  } else if (name == "unfollow") {
    subject_->unfollow(call.number);
  } else if (name == "trigger") {
    subject_->trigger(call.number, std::vector<HXValue>(call.value % 3, call.argument('v')));
  } else if (name == "offer") {
    if (mayMove) subject_->offer(call.text('s'));
  } else if (name == "withdraw") {
    if (mayMove) subject_->withdraw(call.text('s'));
  } else if (name == "endLookUp") {
    subject_->endLookUp(call.text('s'), static_cast<Subject::Ending>(call.number % 4));
  } else if (name != "react") {
    const mw::AnyValue result = callMethod(subject_->methods(), call);
    if (int* const* const address = result.getIf<int*>()) addresses_[call.text('k')] = *address;
    return shown(call, result);
  }
  return "done";
}

}  // namespace HX::model
