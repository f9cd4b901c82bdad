#pragma once

#include <functional>
#include <optional>
#include <recording/table.h>
#include <string>
#include <utility>
#include <vector>

namespace korvo {

/// How a recording is played.
struct PlayOptions {
  double rate = 1;  ///< So many times as fast as it was.
  HX::recording::TimePoint from{};
  HX::recording::TimePoint to{};
  HX::journal::Filter keys;
  std::vector<std::pair<std::string, std::string>> maps;  ///< Beginnings of names, and what stands there instead.

  /// The name under which a key is written.
  std::string nameOf(const std::string& key) const;
  bool wants(const std::string& key) const;
};

/// What a person wants meanwhile.
struct Wish {
  enum class Kind : std::uint8_t { None, End, Pause, Step, Seek };
  Kind kind = Kind::None;
  std::chrono::nanoseconds distance{};  ///< Of a seek, from where it is.
};

/// Tells the entries of a recording in the order in which they happened, which is that of the file, with the pauses
/// that were between them. A clock that was set while it was recorded makes no pause longer.
///
/// @par Threads  One.
class Player {
 public:
  /// Where the entries go, with the names that they have there.
  using Use = std::function<void(const HX::recording::Entry& entry, const std::string& name)>;
  /// Waits for so long, or until a person wishes something. Negative: for a wish.
  using Wait = std::function<Wish(std::chrono::nanoseconds duration)>;
  /// Told now and then where it is.
  using Progress = std::function<void(HX::recording::TimePoint now, bool isPaused)>;

  Player(HX::recording::Reader& reader, PlayOptions options, Use use, Wait wait, Progress progress);

  /// @return False when a person has ended it.
  bool play();
  std::uint64_t told() const { return told_; }

 private:
  enum class Outcome : std::uint8_t { Done, Ended, Sought };
  Outcome playFrom(HX::recording::TimePoint begin);
  std::size_t lastChunk(HX::recording::TimePoint time) const;
  /// Tells an entry that is behind the begin. @return False when something else is to be done first.
  bool play(const HX::recording::Entry& entry, HX::recording::TimePoint begin);
  /// Waits for its time. @return False when something else is to be done first.
  bool await(const HX::recording::Entry& entry);
  bool obey(Wish wish);
  void tell(const HX::recording::Entry& entry);

  HX::recording::Reader& reader_;
  const PlayOptions options_;
  const Use use_;
  const Wait wait_;
  const Progress progress_;
  HX::recording::TimePoint now_{};
  std::optional<HX::recording::TimePoint> sought_;
  bool hasBegun_ = false;
  bool isAfterGap_ = false;
  bool isEnded_ = false;
  bool isPaused_ = false;
  bool steps_ = false;
  std::uint64_t told_ = 0;
  std::chrono::steady_clock::time_point due_;
};

}  // namespace korvo
