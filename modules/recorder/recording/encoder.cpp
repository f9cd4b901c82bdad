#include "encoder.h"

#include <hxvalue/base64.h>
#include <hxvalue/json.h>
#include <hxvalue/msgpack.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

using journal::Change;
using journal::Gap;

/// By which viewers know a log.
const char* const kLogSchema =
    R"({"title":"foxglove.Log","type":"object","properties":{"timestamp":{"type":"object","title":"time",)"
    R"("properties":{"sec":{"type":"integer"},"nsec":{"type":"integer"}}},"level":{"type":"integer"},)"
    R"("message":{"type":"string"},"name":{"type":"string"},"file":{"type":"string"},"line":{"type":"integer"}}})";
const char* const kChangesSchema =
    R"({"type":"object","properties":{"what":{"type":"string"},"key":{"type":"string"},"author":{"type":"string"},)"
    R"("text":{"type":"string"},"msgpack":{"type":"string"},"missed":{"type":"integer"}}})";
const char* const kMoreSchema =
    R"({"type":"object","properties":{"key":{"type":"string"},"kind":{"type":"string"},"author":{"type":"string"}}})";

constexpr int kInfo = 2;  // Levels of that log.
constexpr int kWarning = 3;

const char* kindName(std::uint8_t kind) {
  if (kind == kEvent) return "event";
  return kind == kMicroEvent ? "micro-event" : "data";
}

Message timed(TimePoint logged, TimePoint time, std::uint64_t revision) {
  Message message;
  message.sequence = static_cast<std::uint32_t>(revision);
  message.logTime = nanoseconds(logged);
  message.publishTime = nanoseconds(time);
  return message;
}

std::string packed(const HXValue& value) {
  const auto bytes = toMsgpack(value);
  return toBase64({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

bool isValue(const Change& change) {
  return !change.withheld && (change.isState || change.what == What::Stored || change.what == What::Raised ||
                              change.what == What::RaisedMicro);
}

std::uint8_t kindOf(const Change& change) {
  if (change.isState) return change.kind;
  if (change.what == What::Raised) return kEvent;
  return change.what == What::RaisedMicro ? kMicroEvent : change.kind;
}

}  // namespace

Encoder::Encoder() { clearChannels(); }

void Encoder::clearChannels() {
  for (auto& [key, state] : keys_) state.channel = nullptr;
  channels_.clear();
  schemas_.clear();
  const auto own = [&](std::string_view topic, const char* schema, const char* text) {
    Channel channel;
    channel.topic = topic;
    return makeChannel(std::string(topic) + '\0', std::move(channel), schema, text);
  };
  log_ = own(kLogTopic, "foxglove.Log", kLogSchema);
  changes_ = own(kChangesTopic, "korvo.Change", kChangesSchema);
  more_ = own(kMoreTopic, "korvo.More", kMoreSchema);
}

void Encoder::beginFile(TimePoint now) {
  chunk_ = {};
  clearChannels();
  writeStates(now);
}

void Encoder::beginPiece(TimePoint now) {
  chunk_ = {};
  for (auto& [name, schema] : schemas_) schema.isDefined = false;
  for (auto& [identity, channel] : channels_) channel->isDefined = false;
  writeStates(now);
}

void Encoder::writeStates(TimePoint now) {
  for (auto& [key, state] : keys_) writeValue(key, state, state.author, timed(now, state.time, 0));
}

OpenChunk Encoder::takeChunk() { return std::exchange(chunk_, {}); }

Encoder::ChannelState* Encoder::makeChannel(std::string identity, Channel channel, const std::string& schemaName,
                                            const std::string& schemaText) {
  if (isFull()) return nullptr;
  const auto [schema, isNew] = schemas_.try_emplace(schemaName);
  if (isNew) {
    schema->second.id = static_cast<std::uint16_t>(schemas_.size());
    write(schema->second.record, Schema{schema->second.id, schemaName, schemaText});
  }
  auto made = std::make_unique<ChannelState>();
  made->id = channel.id = static_cast<std::uint16_t>(channels_.size());
  made->schema = &schema->second;
  channel.schema = schema->second.id;
  write(made->record, channel);
  return channels_.insert_or_assign(std::move(identity), std::move(made)).first->second.get();
}

Encoder::ChannelState* Encoder::channelOf(std::string_view key, const KeyState& state, std::string_view author) {
  std::string identity = fmt::format("{}\1{}\1{}\1{}", key, state.kind, author, state.shape->text());
  if (const auto known = channels_.find(identity); known != channels_.end()) return known->second.get();
  Channel channel;
  channel.topic = key;
  channel.metadata = {{"kind", kindName(state.kind)}, {"type", state.shape->text()}};
  if (!author.empty()) channel.metadata.emplace("callerid", author);
  return makeChannel(std::move(identity), std::move(channel), state.shape->schemaName(), state.shape->schemaText());
}

void Encoder::define(ChannelState& channel) {
  if (!channel.schema->isDefined) {
    chunk_.records += channel.schema->record;
    chunk_.definitions.schemas.emplace(channel.schema->id, channel.schema->record);
    channel.schema->isDefined = true;
  }
  chunk_.records += channel.record;
  chunk_.definitions.channels.emplace(channel.id, channel.record);
  channel.isDefined = true;
}

void Encoder::addMessage(ChannelState& channel, const Message& message) {
  if (!channel.isDefined) define(channel);
  Message numbered = message;
  numbered.channel = channel.id;
  chunk_.add(numbered);
}

void Encoder::writeValue(std::string_view key, KeyState& state, std::string_view author, Message message) {
  if (!state.channel) state.channel = channelOf(key, state, author);
  if (!state.channel) return writeMore(key, state, author, message);
  const auto text = state.shape->messageOf(state.value);
  // Stands before the message, so that who reads on needs to remember no more than one.
  if (!text.isExact) writeChange(message, {{"what", "exact"}, {"key", key}, {"msgpack", packed(state.value)}});
  message.data = text.text;
  addMessage(*state.channel, message);
}

void Encoder::writeMore(std::string_view key, const KeyState& state, std::string_view author, Message message) {
  HXValue::Map entries{{"key", key}, {"kind", kindName(state.kind)}, {"msgpack", packed(state.value)}};
  if (!author.empty()) entries.emplace("author", author);
  std::string text = toJson(entries);
  // With the value as others have it, for viewers.
  text.back() = ',';
  text += state.shape->messageOf(state.value).text.substr(1);
  message.data = text;
  addMessage(*more_, message);
}

void Encoder::writeLog(Message message, int level, std::string_view text) {
  constexpr std::uint64_t kSecond = 1'000'000'000;
  const std::string json =
      fmt::format(R"({{"timestamp":{{"sec":{},"nsec":{}}},"level":{},"message":{},"name":"korvo","file":"","line":0}})",
                  message.logTime / kSecond, message.logTime % kSecond, level, toJson(text));
  message.data = json;
  addMessage(*log_, message);
}

void Encoder::writeChange(Message message, HXValue::Map entries) {
  const std::string json = toJson(HXValue(std::move(entries)));
  message.data = json;
  addMessage(*changes_, message);
}

void Encoder::add(const Change& change, TimePoint now) {
  if (isValue(change)) {
    addValue(change, now);
  } else {
    addOther(change);
  }
}

void Encoder::addValue(const Change& change, TimePoint now) {
  auto found = keys_.find(change.key);
  if (found == keys_.end()) found = keys_.try_emplace(std::string(change.key)).first;
  KeyState& state = found->second;
  const bool isLike =
      state.shape && state.kind == kindOf(change) && state.author == change.author && state.shape->fits(change.value);
  state.value = change.value;
  state.time = change.time;
  state.isNamed = true;
  if (!isLike) {
    state.kind = kindOf(change);
    state.author = change.author;
    if (!state.shape || !state.shape->fits(change.value)) state.shape = std::make_shared<const Shape>(change.value);
    state.channel = nullptr;
  }
  const bool isState = change.isState && change.leftOut == 0;
  const Message message = timed(isState ? now : change.time, change.time, isState ? 0 : change.at.revision);
  writeValue(change.key, state, change.author, message);
  if (change.changedKind) {
    writeLog(message, kInfo, fmt::format("{} is kept as {} from now on", change.key, kindName(change.kind)));
  }
  if (change.key == kNoteKey && !change.isState && change.value.isString()) {
    writeLog(message, kInfo, "note: " + change.value.asString());
  }
}

void Encoder::addOther(const Change& change) {
  const Message message = timed(change.time, change.time, change.at.revision);
  HXValue::Map entries{{"key", change.key}};
  if (!change.author.empty()) entries.emplace("author", change.author);
  std::string text;
  if (change.withheld) {
    entries.emplace("what", "withheld");
    text = fmt::format("the value of {} is too large to be recorded from another process", change.key);
  } else if (change.what == What::Removed) {
    if (const auto found = keys_.find(change.key); found != keys_.end()) keys_.erase(found);
    entries.emplace("what", "removed");
    text = fmt::format("{} is removed", change.key);
  } else if (change.what == What::Described) {
    entries.emplace("what", "described");
    entries.emplace("text", change.value);
    text = fmt::format("{} is described: {}", change.key, change.value.isString() ? change.value.asString() : "");
  } else {
    entries.emplace("what", "declared");
    entries.emplace("kind", kindName(change.kind));
    text = fmt::format("{} is declared as {}", change.key, kindName(change.kind));
  }
  writeChange(message, std::move(entries));
  writeLog(message, change.withheld ? kWarning : kInfo, text);
}

void Encoder::add(const Gap& gap, TimePoint now) {
  for (auto& [key, state] : keys_) state.isNamed = false;
  const bool isCounted =
      gap.from.epoch == gap.to.epoch && gap.from.revision > 0 && gap.to.revision >= gap.from.revision;
  const std::uint64_t missed = isCounted ? gap.to.revision - gap.from.revision : 0;
  const Message message = timed(now, now, gap.to.revision);
  writeChange(message, {{"what", "gap"}, {"missed", static_cast<std::int64_t>(missed)}});
  writeLog(message, kWarning, isCounted ? fmt::format("{} changes were missed", missed) : "changes were missed");
}

void Encoder::name(std::string_view key) {
  if (const auto found = keys_.find(key); found != keys_.end()) found->second.isNamed = true;
}

void Encoder::forgetUnnamed(TimePoint now) {
  for (auto key = keys_.begin(); key != keys_.end();) {
    if (key->second.isNamed) {
      ++key;
      continue;
    }
    const Message message = timed(now, now, 0);
    writeChange(message, {{"what", "removed"}, {"key", key->first}});
    writeLog(message, kInfo, fmt::format("{} is removed", key->first));
    key = keys_.erase(key);
  }
}

}  // namespace HX::recording
