#pragma once

#include <hxerror/api.h>
#include <hxjournal/change.h>
#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace HX::journal {

/// Writes what a follower is told as values that travel between processes: batches, in columns. docs/wire says what is
/// in one.
///
/// @par Threads  One at a time.
class HX_API BatchWriter {
 public:
  /// A value that takes more, or is nested deeper, is withheld: no message would hold it.
  static constexpr std::size_t kMostBytes = std::size_t{48} << 20U;
  static constexpr std::size_t kMostDepth = 200;
  /// Names and authors are numbered, and forgotten when there are more of one of them.
  static constexpr std::size_t kMostNames = 65'536;

  /// @param gap  What was missed; said before all else of a batch. Only while it is empty.
  void gap(const Gap& gap) { gap_ = gap; }
  /// @param change  Told after those before it.
  /// @throws std::bad_alloc, with nothing written.
  void change(const Change& change);
  /// @param key  Has not changed since the gap.
  /// @param at   The place of its last change.
  void unchanged(std::string_view key, Position at);
  /// @param at  Said after all else of a batch.
  void complete(Position at) { complete_ = at; }
  /// All is told that there is at the moment. Said last.
  void pause() { pause_ = true; }

  /// Forgets what has not been taken, and what was told of names: after a lack of memory.
  void startOver() noexcept;

  /// Changes, states and unchanged keys so far.
  std::size_t lines() const noexcept { return lines_.size(); }
  /// Roughly what they take.
  std::size_t bytes() const noexcept { return bytes_; }
  bool isEmpty() const noexcept { return lines_.empty() && !gap_ && !complete_ && !pause_; }

  /// The batch; the next one begins.
  /// @param position     Where to go on later, once all of it is told.
  /// @param acknowledge  Whether the reader is to say when that is.
  /// @return The batch. They are numbered from 1 on.
  /// @throws std::bad_alloc, with nothing taken.
  HXValue take(Position position, bool acknowledge);
  /// The batch that was taken last cannot be sent: the next one gets its number, for the reader counts them.
  void takeBack() noexcept { --number_; }
  /// The number of the batch that is taken next.
  std::uint64_t number() const noexcept { return number_; }

 private:
  struct Line {
    HXValue value;
    std::int64_t key = 0;
    std::int64_t revision = 0;
    std::int64_t time = 0;
    std::int64_t nth = 0;
    std::int64_t leftOut = 0;
    std::int64_t by = 0;
    std::int64_t what = 0;
    std::int64_t kind = 0;
    std::int64_t flags = 0;
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
  };
  using Numbers = std::unordered_map<std::string, std::int64_t, Hash, std::equal_to<>>;

  std::int64_t numberOf(Numbers& numbers, std::string_view text, HXValue::List& added, std::int64_t first);
  void clear() noexcept;
  void forget() noexcept;
  void putLines(HXValue::Map& batch) const;
  void putColumn(HXValue::Map& batch, const char* name, std::int64_t Line::*member) const;

  Numbers names_;
  Numbers authors_;
  bool forget_ = false;
  std::uint64_t number_ = 1;
  // Of the batch that is being written.
  HXValue::List newNames_;
  HXValue::List newAuthors_;
  std::vector<Line> lines_;
  std::optional<Gap> gap_;
  std::optional<Position> complete_;
  bool pause_ = false;
  std::size_t bytes_ = 0;
};

/// A batch that was read.
struct Batch {
  struct Line {
    journal::Change change;
    bool isUnchanged = false;  ///< Only key and place are meant.
    std::shared_ptr<const std::string> key;
    std::shared_ptr<const std::string> author;  ///< What the views in `change` look at.
  };

  std::optional<Gap> gap;
  std::vector<Line> lines;
  std::optional<Position> complete;
  bool pause = false;
  Position position;
  std::uint64_t number = 0;
  bool acknowledge = false;
};

/// Reads what a BatchWriter wrote.
///
/// @par Threads  One at a time.
class HX_API BatchReader {
 public:
  /// @param batch  The next one of its writer, in their order; each refers to those before.
  /// @return What it says.
  /// @throws std::runtime_error when it is no batch, or not the next one, and says why; the reader is of no use then.
  Batch read(const HXValue& batch);

 private:
  using Texts = std::vector<std::shared_ptr<const std::string>>;

  static void learn(Texts& texts, const HXValue& batch, std::string_view entry);
  void readLines(const HXValue& batch, Batch& out) const;

  std::uint64_t number_ = 0;  // Read last.
  Texts names_;
  Texts authors_;
};

}  // namespace HX::journal
