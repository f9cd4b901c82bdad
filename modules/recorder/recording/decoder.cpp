#include "reader.h"

#include <hxvalue/base64.h>
#include <hxvalue/json.h>
#include <hxvalue/msgpack.h>

#include <array>
#include <span>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

using Role = ChannelInfo::Role;

HXValue objectOf(const Message& message) {
  try {
    HXValue object = fromJson(message.data);
    if (object.isMap()) return object;
  } catch (const std::runtime_error& error) {
    throw RecordingError(fmt::format("a message is no JSON: {}", error.what()));
  }
  throw RecordingError("a message is no object of JSON");
}

std::string textOf(const HXValue& object, std::string_view name) {
  const HXValue* const found = object.find(name);
  const std::string* const text = found ? found->stringIf() : nullptr;
  return text ? *text : std::string();
}

HXValue unpacked(const std::string& text) {
  try {
    const std::string bytes = fromBase64(text);
    return fromMsgpack(std::as_bytes(std::span(bytes)));
  } catch (const std::runtime_error& error) {
    throw RecordingError(error.what());
  }
}

What whatOf(const std::string& kind) {
  if (kind == "event") return What::Raised;
  return kind == "micro-event" ? What::RaisedMicro : What::Stored;
}

}  // namespace

Reader::Decoder::Decoder(const Reader& reader) : reader_(reader), revision_(numberOf(reader.about(), "revision")) {}

/// The nearest one with these low bits.
std::uint64_t Reader::Decoder::revisionOf(std::uint32_t sequence) {
  const auto distance = static_cast<std::int32_t>(sequence - static_cast<std::uint32_t>(revision_));
  revision_ += static_cast<std::uint64_t>(static_cast<std::int64_t>(distance));
  return revision_;
}

std::optional<Entry> Reader::Decoder::decode(const Message& message) {
  const auto channel = reader_.channels_.find(message.channel);
  if (channel == reader_.channels_.end()) throw RecordingError(fmt::format("there is no channel {}", message.channel));
  const Role role = channel->second.role;
  if (role == Role::Log || role == Role::Foreign) return {};
  Entry entry = entryOf(message, channel->second);
  if (role == Role::Changes) return readChange(message, entry) ? std::optional(std::move(entry)) : std::nullopt;
  const auto exact = std::exchange(exact_, std::nullopt);
  if (role == Role::More) {
    readMore(message, entry);
  } else if (exact && exact->sequence == message.sequence) {
    entry.value = exact->value;
  } else {
    const HXValue object = objectOf(message);
    const HXValue* const value = object.find("value");
    if (!value) throw RecordingError("a message has no value");
    entry.value = channel->second.shape.valueOf(*value);
  }
  return entry;
}

Entry Reader::Decoder::entryOf(const Message& message, const ChannelInfo& channel) {
  Entry entry;
  entry.kind = message.sequence == 0 ? Entry::Kind::State : Entry::Kind::Change;
  entry.what = channel.what;
  entry.key = channel.topic;
  entry.author = channel.author;
  entry.time = timePoint(message.publishTime);
  entry.logged = timePoint(message.logTime);
  if (message.sequence != 0) entry.revision = revisionOf(message.sequence);
  return entry;
}

bool Reader::Decoder::readChange(const Message& message, Entry& entry) {
  const HXValue object = objectOf(message);
  const std::string what = textOf(object, "what");
  entry.kind = Entry::Kind::Change;
  entry.key = textOf(object, "key");
  entry.author = textOf(object, "author");
  if (what == "exact") {
    exact_ = {message.sequence, unpacked(textOf(object, "msgpack"))};
    return false;
  }
  if (what == "gap") {
    entry.kind = Entry::Kind::Gap;
    const HXValue* const missed = object.find("missed");
    if (missed && (missed->isInt() || missed->isInt64())) entry.missed = static_cast<std::uint64_t>(missed->toInt64());
  } else if (what == "removed") {
    entry.what = What::Removed;
  } else if (what == "declared") {
    entry.what = What::Declared;
  } else if (what == "described") {
    entry.what = What::Described;
    entry.value = textOf(object, "text");
  } else if (what == "withheld") {
    entry.isWithheld = true;
  } else {
    return false;  // Of a later version.
  }
  return true;
}

void Reader::Decoder::readMore(const Message& message, Entry& entry) {
  const HXValue object = objectOf(message);
  entry.key = textOf(object, "key");
  entry.author = textOf(object, "author");
  entry.what = whatOf(textOf(object, "kind"));
  entry.value = unpacked(textOf(object, "msgpack"));
}

}  // namespace HX::recording
