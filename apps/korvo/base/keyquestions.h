#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/genericobject.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace HX {
class HXProxy;
}

namespace korvo {

/// Something to ask the memory about a key, without waiting for the answer.
using KeyQuestion = mw::Future<mw::AnyValue> (*)(mw::GenericObject& memory, const std::string& key);

mw::Future<mw::AnyValue> askKind(mw::GenericObject& memory, const std::string& key);         ///< A string.
mw::Future<mw::AnyValue> askValue(mw::GenericObject& memory, const std::string& key);        ///< A value.
mw::Future<mw::AnyValue> askTimestamp(mw::GenericObject& memory, const std::string& key);    ///< See `toStamped`.
mw::Future<mw::AnyValue> askSubscribers(mw::GenericObject& memory, const std::string& key);  ///< A list of strings.
mw::Future<mw::AnyValue> askHistory(mw::GenericObject& memory, const std::string& key);      ///< A value.
mw::Future<mw::AnyValue> askDescription(mw::GenericObject& memory,
                                        const std::string& key);  ///< Two entries, the second
                                                                  ///< [key, kind, text].

/// The text in the answer to `askDescription`.
std::string textOfDescription(const HX::HXValue& answer);

/// The answers about one key, in the order of the questions.
using KeyAnswers = std::vector<mw::AnyValue>;

/// Asks each of `questions` about each of `keys`. Questions go out in parts, those of a part before its first answer is
/// waited for, so that neither the way to the broker nor the room that answers take counts for much.
///
/// @param use  Called with the answers, key by key in their order; not for a key that was removed meanwhile.
/// @throws What a call fails with beyond that, and what `use` throws.
void askInParts(const HX::HXProxy& memory, std::span<const std::string> keys, const std::vector<KeyQuestion>& questions,
                const std::function<void(const std::string& key, KeyAnswers& answers)>& use);

}  // namespace korvo
