#include "keyquestions.h"

#include <hxcommon/hxproxy.h>
#include <hxerror/hxerror.h>
#include <hxvalue/msgpack.h>
#include <libmw/batch.h>
#include <libmw/future.h>

#include <algorithm>
#include <optional>

namespace korvo {
namespace {

/// As many as a part may have, and how many bytes of answers should wait at the broker at once, which ends those that
/// it waits for too long.
constexpr std::size_t kMostOfAPart = 64;
constexpr std::size_t kBytesOfAPart = std::size_t{8} << 20;

using Pending = std::vector<mw::Future<mw::AnyValue>>;

std::optional<KeyAnswers> await(Pending pending) {
  KeyAnswers answers;
  try {
    for (auto& answer : pending) answers.push_back(std::move(answer).take());
  } catch (const HX::HXError&) {  // How the memory says that there is no such key.
    return std::nullopt;
  }
  return answers;
}

std::size_t sizeOf(const KeyAnswers& answers) {
  std::size_t size = 0;
  for (const auto& answer : answers) {
    HX::HXValue value;
    if (answer.reference().toValue(value)) size += HX::toMsgpack(value).size();
  }
  return size;
}

}  // namespace

mw::Future<mw::AnyValue> askKind(mw::GenericObject& memory, const std::string& key) {
  return memory.async("getType", key);
}

mw::Future<mw::AnyValue> askValue(mw::GenericObject& memory, const std::string& key) {
  return memory.async("getData", key);
}

mw::Future<mw::AnyValue> askTimestamp(mw::GenericObject& memory, const std::string& key) {
  return memory.async("getTimestamp", key);
}

mw::Future<mw::AnyValue> askSubscribers(mw::GenericObject& memory, const std::string& key) {
  return memory.async("getSubscribers", key);
}

mw::Future<mw::AnyValue> askHistory(mw::GenericObject& memory, const std::string& key) {
  return memory.async("getEventHistory", key);
}

mw::Future<mw::AnyValue> askDescription(mw::GenericObject& memory, const std::string& key) {
  return memory.async("getDescriptionList", std::vector{key});
}

std::string textOfDescription(const HX::HXValue& answer) { return answer[answer.getSize() - 1][2].asString(); }

void askInParts(const HX::HXProxy& memory, std::span<const std::string> keys, const std::vector<KeyQuestion>& questions,
                const std::function<void(const std::string& key, KeyAnswers& answers)>& use) {
  const mw::AnyObject object = memory.asObject();
  // Not known before they come, the answers to a part are taken to be as large as those before; so the first part is
  // one.
  for (std::size_t count = 1; !keys.empty();) {
    const auto part = keys.first(std::min(keys.size(), count));
    std::size_t bytes = 0;
    keys = keys.subspan(part.size());
    std::vector<Pending> asked(part.size());
    const mw::Batch batch;
    for (std::size_t i = 0; i < part.size(); ++i) {
      for (const KeyQuestion ask : questions) asked[i].push_back(ask(object.get(), part[i]));
    }
    for (std::size_t i = 0; i < part.size(); ++i) {
      auto answers = await(std::move(asked[i]));
      if (!answers) continue;
      bytes += sizeOf(*answers);
      use(part[i], *answers);
    }
    count = std::clamp<std::size_t>(kBytesOfAPart / (bytes / part.size() + 1), 1, std::min(2 * count, kMostOfAPart));
  }
}

}  // namespace korvo
