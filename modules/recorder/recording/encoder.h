#pragma once

#include "chunk.h"
#include "entry.h"
#include "shape.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace HX::recording {

/// Makes messages of changes, in chunks, and knows what each key holds, so that every file can begin with that.
///
/// Each key, kind, shape of value and author has a channel of its own, so that author and shape cost nothing for a
/// message. A channel is defined in the first chunk of a file that has messages of it.
///
/// @par Threads  One at a time.
class Encoder {
 public:
  /// What is beyond goes into one channel, with its key: the file has numbers for no more.
  static constexpr std::size_t kMostChannels = 60'000;

  Encoder();

  /// Begins a file with what the keys hold. What was not taken before belongs to the file before.
  /// @param now  When the states are taken.
  void beginFile(TimePoint now);
  /// As `beginFile`, with the numbers of channels that there are, so that files can be put together.
  void beginPiece(TimePoint now);

  /// @param now  When it is told, which is the time of states.
  void add(const journal::Change& change, TimePoint now);
  void add(const journal::Gap& gap, TimePoint now);
  /// A snapshot after a gap has not named these.
  /// @param now  When that is known.
  void forgetUnnamed(TimePoint now);
  /// It has named this one, without its value.
  void name(std::string_view key);

  const OpenChunk& chunk() const { return chunk_; }
  OpenChunk takeChunk();

  std::size_t keys() const { return keys_.size(); }
  /// Whether there are keys without a channel of their own.
  bool isFull() const { return channels_.size() >= kMostChannels; }

 private:
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
  };
  template <class T>
  using ByText = std::unordered_map<std::string, T, TextHash, std::equal_to<>>;

  struct SchemaState {
    std::uint16_t id = 0;
    std::string record;
    bool isDefined = false;  // In the file that is being written.
  };
  struct ChannelState {
    std::uint16_t id = 0;
    SchemaState* schema = nullptr;
    std::string record;
    bool isDefined = false;  // The same.
  };
  struct KeyState {
    HXValue value;
    TimePoint time{};
    std::uint8_t kind = kData;
    bool isNamed = true;  // By the snapshot that is being told.
    std::string author;
    std::shared_ptr<const Shape> shape;
    ChannelState* channel = nullptr;  // For kind, author and shape; null for none of its own.
  };

  void clearChannels();
  ChannelState* channelOf(std::string_view key, const KeyState& state, std::string_view author);
  ChannelState* makeChannel(std::string identity, Channel channel, const std::string& schemaName,
                            const std::string& schemaText);
  void define(ChannelState& channel);
  void addMessage(ChannelState& channel, const Message& message);
  void writeStates(TimePoint now);
  void writeValue(std::string_view key, KeyState& state, std::string_view author, Message message);
  void writeMore(std::string_view key, const KeyState& state, std::string_view author, Message message);
  void writeLog(Message message, int level, std::string_view text);
  void writeChange(Message message, HXValue::Map entries);
  void addValue(const journal::Change& change, TimePoint now);
  void addOther(const journal::Change& change);

  OpenChunk chunk_;
  ByText<KeyState> keys_;
  ByText<std::unique_ptr<ChannelState>> channels_;  // By all that makes them differ.
  std::map<std::string, SchemaState> schemas_;      // By name.
  ChannelState* log_ = nullptr;
  ChannelState* changes_ = nullptr;
  ChannelState* more_ = nullptr;
};

}  // namespace HX::recording
