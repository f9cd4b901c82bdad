#pragma once

#include <hxerror/api.h>
#include <hxjournal/change.h>
#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <cstdint>
#include <deque>
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
  std::size_t lines() const noexcept { return lines_; }
  /// Roughly what they take.
  std::size_t bytes() const noexcept { return bytes_; }
  bool isEmpty() const noexcept { return lines_ == 0 && !gap_ && !complete_ && !pause_; }

  /// The batch; the next one begins.
  /// @param position     Where to go on later, once all of it is told.
  /// @param acknowledge  Whether the reader is to say when that is.
  /// @return The batch. They are numbered from 1 on.
  /// @throws std::bad_alloc; then nothing counts as taken, and only `startOver` is of use.
  HXValue take(Position position, bool acknowledge);
  /// The batch that was taken last cannot be sent: the next one gets its number, for the reader counts them.
  void takeBack() noexcept { --number_; }
  /// The number of the batch that is taken next.
  std::uint64_t number() const noexcept { return number_; }

 private:
  /// Texts by number, from 0 on.
  class Numbers {
   public:
    /// @param added  A text that is new is put there too.
    std::size_t numberOf(std::string_view text, HXValue::List& added);
    std::size_t size() const noexcept { return known_.size(); }
    void clear() noexcept;

   private:
    struct Hash {
      using is_transparent = void;
      std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
    };
    struct Known {
      const std::string* text;
      std::size_t next;  // Which came after it the last time.
    };
    std::size_t find(std::string_view text, HXValue::List& added);

    std::unordered_map<std::string, std::size_t, Hash, std::equal_to<>> numbers_;
    std::vector<Known> known_;  // Never more than `numbers_`.
    std::size_t last_ = 0;
  };
  /// What the lines have of one thing. One number as long as all have the same.
  class Column {
   public:
    void add(std::int64_t number, std::size_t lines);
    void cut(std::size_t lines) noexcept;
    void put(HXValue::Map& batch, const char* name);

   private:
    void spread(std::size_t lines);

    std::int64_t first_ = 0;
    HXValue::List all_;
    std::size_t usual_ = 0;  // How many the last list had.
  };
  struct Line {
    std::int64_t key = 0;
    std::int64_t revision = 0;
    std::int64_t time = 0;
    std::int64_t what = 0;
    std::int64_t kind = 0;
    std::int64_t nth = 0;
    std::int64_t by = 0;
    std::int64_t flags = 0;
    std::int64_t leftOut = 0;
  };

  void add(const Line& line, const HXValue& value);
  void cut(std::size_t lines) noexcept;
  void clear() noexcept;
  void forget() noexcept;
  void putLines(HXValue::Map& batch);

  Numbers names_;
  Numbers authors_;
  bool forget_ = false;
  std::uint64_t number_ = 1;
  // Of the batch that is being written.
  HXValue::List newNames_;
  HXValue::List newAuthors_;
  std::size_t lines_ = 0;
  std::size_t usual_ = 0;   // As many as the last batch had.
  std::int64_t first_ = 0;  // Revision and
  std::int64_t base_ = 0;   // time of the first line,
  std::int64_t time_ = 0;   // time of the last.
  HXValue::List keys_;
  HXValue::List values_;
  Column skips_, times_, whats_, kinds_, nths_, by_, flags_, leftOut_;
  std::optional<Gap> gap_;
  std::optional<Position> complete_;
  bool pause_ = false;
  std::size_t bytes_ = 0;
};

/// A batch that was read.
struct Batch {
  /// Where texts stay while others come.
  using Texts = std::deque<std::string>;
  struct Line {
    journal::Change change;    ///< Its texts are good as long as the batch.
    bool isUnchanged = false;  ///< Only key and place are meant.
  };

  std::optional<Gap> gap;
  std::vector<Line> lines;
  std::optional<Position> complete;
  bool pause = false;
  Position position;
  std::uint64_t number = 0;
  bool acknowledge = false;
  std::shared_ptr<const Texts> names;  ///< What the lines look at.
  std::shared_ptr<const Texts> authors;
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
  using Texts = std::shared_ptr<Batch::Texts>;

  static void learn(Texts& texts, const HXValue& batch, std::string_view entry);
  void readLines(const HXValue& batch, Batch& out) const;
  static void readTexts(const HXValue& batch, Batch& out);
  static void readNumbers(const HXValue& batch, Batch& out, std::int64_t base);

  std::uint64_t number_ = 0;  // Read last.
  Texts names_ = std::make_shared<Batch::Texts>();
  Texts authors_ = std::make_shared<Batch::Texts>();
};

}  // namespace HX::journal
