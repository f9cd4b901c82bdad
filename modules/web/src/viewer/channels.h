#pragma once

#include "model/tree.h"

#include <hxvalue/hxvalue.h>
#include <hxvalue/jsonschema.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace HX::web {

/// What a viewer is told of which keys there are, and of the shape of their values: a channel for each.
///
/// A channel is never changed. When a key gets values of another shape its channel goes, and one with another number
/// comes.
///
/// @par Threads  One at a time.
class Channels {
 public:
  static constexpr std::size_t kMost = 20'000;
  /// A key whose values have more shapes than this gets a channel without one, and keeps it.
  static constexpr int kMostShapes = 8;

  struct Channel {
    std::uint32_t id = 0;
    JsonSchema schema;
    int shapes = 0;
    std::uint64_t pass = 0;      ///< Of `update`, in which the key was there last.
    std::uint64_t fitted = 0;    ///< The newest revision whose shape was looked at.
    std::uint64_t revision = 0;  ///< Of what was sent last.
  };
  /// What has become of the channels since the viewer was told.
  struct News {
    HXValue::List come;  ///< As they are advertised.
    HXValue::List gone;  ///< Numbers.
    bool isEmpty() const { return come.empty() && gone.empty(); }
  };

  /// Looks which keys have come, gone and changed since the last look.
  void update(const Tree& tree);
  /// Gives the key of a channel another one where the value that it has since a revision has another shape. What is
  /// older than a value looked at before changes nothing: who follows the key and who follows all are not in step.
  /// @return Whether that was so; the channel's number is then another.
  bool refit(Channel& channel, const std::string& key, const HXValue& value, std::uint64_t revision);
  /// The channel of that number, by its key; empty when there is none.
  std::string_view keyOf(std::uint32_t id) const;
  Channel* find(const std::string& key);
  /// @return What is to be told; told once.
  News takeNews();
  /// How many keys have none, for there are too many.
  std::size_t left() const { return left_; }
  /// All go; numbers go on.
  void clear();

 private:
  void advertise(const std::string& key, Channel& channel);
  void withdraw(const Channel& channel);

  std::unordered_map<std::string, Channel> channels_;
  std::unordered_map<std::uint32_t, std::string> keys_;
  News news_;
  std::uint32_t lastId_ = 0;
  std::uint32_t lastTold_ = 0;
  std::uint64_t pass_ = 0;
  std::uint64_t seen_ = 0;  // The tree's count at the last look.
  std::size_t left_ = 0;
};

}  // namespace HX::web
