#include "table.h"

#include <algorithm>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

namespace HX::recording {
namespace {

using Role = ChannelInfo::Role;

constexpr std::uint64_t kJitter = 1'000'000'000;

bool isOfKey(const Entry& entry) {
  return entry.kind != Entry::Kind::Gap && !entry.isWithheld && entry.what != What::Described;
}

class Search {
 public:
  Search(Reader& reader, std::uint64_t time, const journal::Filter& keys) : reader_(reader), time_(time), keys_(keys) {}

  Table run() {
    const auto& chunks = reader_.chunks();
    const std::size_t last = chunksUntil(reader_, timePoint(time_));
    for (std::size_t i = 0; i + 1 < last; ++i) want(chunks[i]);
    bool isFirst = true;
    for (std::size_t i = last; i-- > 0;) {
      if (!isFirst && reader_.hasIndex() && !isOfUse(chunks[i])) continue;
      look(chunks[i], std::exchange(isFirst, false));
    }
    // What was only declared has no value, unless an older entry has.
    for (auto& [key, entry] : declared_) {
      if (!met_.contains(key)) table_.emplace(key, entry);
    }
    return std::move(table_);
  }

 private:
  const ChannelInfo* channel(std::uint16_t id) const {
    const auto found = reader_.channels().find(id);
    return found == reader_.channels().end() ? nullptr : &found->second;
  }

  /// Notes the keys that have something in a chunk.
  void want(const ChunkIndex& chunk) {
    for (const auto& [id, place] : chunk.channels) {
      if (!known_.insert(id).second) continue;
      const ChannelInfo* const info = channel(id);
      if (info && info->role == Role::Key && keys_.wantsKey(info->topic)) wanted_.insert(info->topic);
    }
  }

  bool isOfUse(const ChunkIndex& chunk) const {
    return std::ranges::any_of(chunk.channels, [&](const auto& one) {
      const ChannelInfo* const info = channel(one.first);
      if (!info || info->role == Role::More) return true;
      if (info->role == Role::Changes) return !wanted_.empty();
      return info->role == Role::Key && wanted_.contains(info->topic);
    });
  }

  void look(const ChunkIndex& chunk, bool isLast) {
    const std::string records = reader_.load(chunk);
    std::vector<Message> messages;
    forEachRecord(records, [&](const Record& record) {
      if (record.op == Op::Message) messages.push_back(readMessage(record.content));
    });
    if (isLast) {
      const auto isLater = [&](const Message& message) { return message.logTime > time_; };
      while (!messages.empty() && isLater(messages.back())) messages.pop_back();
    }
    for (std::size_t i = messages.size(); i-- > 0;) meet(messages, i);
  }

  void meet(const std::vector<Message>& messages, std::size_t i) {
    const ChannelInfo* const info = channel(messages[i].channel);
    if (!info) throw RecordingError("a message has no channel");
    if (info->role == Role::Key && (met_.contains(info->topic) || !keys_.wantsKey(info->topic))) return;
    Reader::Decoder decoder(reader_);
    // Its exact value may stand before it.
    const ChannelInfo* const before = i > 0 ? channel(messages[i - 1].channel) : nullptr;
    if (info->role == Role::Key && before && before->role == Role::Changes) decoder.decode(messages[i - 1]);
    const auto entry = decoder.decode(messages[i]);
    if (!entry || !isOfKey(*entry) || !keys_.wantsKey(entry->key)) return;
    if (entry->what == What::Declared) return void(declared_.emplace(entry->key, *entry));
    if (!met_.insert(entry->key).second) return;
    wanted_.erase(entry->key);
    if (entry->what != What::Removed) table_.emplace(entry->key, *entry);
  }

  Reader& reader_;
  const std::uint64_t time_;
  const journal::Filter& keys_;
  Table table_;
  Table declared_;
  std::unordered_set<std::string> wanted_;  // Keys that have something before, and were not met yet.
  std::unordered_set<std::string> met_;
  std::set<std::uint16_t> known_;
};

}  // namespace

std::size_t chunksUntil(const Reader& reader, TimePoint time) {
  const std::uint64_t wanted = nanoseconds(time);
  const auto& chunks = reader.chunks();
  std::size_t until = 0;
  std::uint64_t latest = 0;  // Since the clock was set.
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    // Writers that run side by side come out of order too, but by no second.
    const bool isSetBack = chunks[i].start < latest && latest - chunks[i].start > kJitter;
    if (isSetBack && until > 0 && latest >= wanted) break;
    latest = isSetBack ? chunks[i].end : std::max(latest, chunks[i].end);
    if (chunks[i].start <= wanted) until = i + 1;
  }
  return until;
}

Table tableAt(Reader& reader, TimePoint time, const journal::Filter& keys) {
  return Search(reader, nanoseconds(time), keys).run();
}

void advance(Table& table, const Entry& entry) {
  if (!isOfKey(entry)) return;
  if (entry.what == What::Removed) {
    table.erase(entry.key);
  } else if (entry.what != What::Declared || !table.contains(entry.key)) {
    table.insert_or_assign(entry.key, entry);
  }
}

}  // namespace HX::recording
