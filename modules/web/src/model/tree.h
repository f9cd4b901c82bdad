#pragma once

#include "brief.h"

#include <hxjournal/change.h>
#include <hxvalue/hxvalue.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace HX::web {

/// Milliseconds since the epoch, as pages count them.
double millisecondsOf(journal::TimePoint time);

/// A part of a key's name between slashes, and the key whose name ends with it, if there is one.
struct Node {
  std::uint32_t id = 0;
  std::string path;      ///< From the beginning of the name.
  std::size_t last = 0;  ///< Where its own part of the path begins.
  Node* parent = nullptr;
  std::map<std::string_view, std::unique_ptr<Node>> children;  ///< By their own parts.

  bool isKey = false;
  bool byAddress = false;
  bool isTapped = false;
  journal::What what = journal::What::Stored;
  std::uint8_t kind = 0;
  std::uint16_t author = 0;  ///< Among `Tree::authors`.
  HXValue value;
  double time = 0;
  std::uint64_t revision = 0;
  std::uint32_t nth = 0;
  std::uint32_t changes = 0;     ///< Here and below; begins anew past 2^32.
  std::uint32_t keys = 0;        ///< Here and below.
  std::uint64_t seen = 0;        ///< The tree's count at the last change here or below.
  std::uint64_t generation = 0;  ///< The snapshot that has named it last.

  std::string_view name() const { return std::string_view(path).substr(last); }
};

/// What is collected of one plotted number between two looks at it: enough that no spike vanishes.
struct Tap {
  struct Point {
    double time = 0;
    double value = 0;
  };
  ValuePath path;
  std::uint32_t count = 0;
  Point first, least, most, last;

  void add(Point point);
  /// Up to four points in the order of their times; begins anew.
  std::vector<Point> take();
};

/// A raise, for the time line.
struct Raise {
  std::uint64_t number = 0;  ///< The tree's count.
  std::string key;
  std::string value;  ///< In short.
  double time = 0;
  std::uint16_t author = 0;
  bool isMicro = false;
};

/// A child that came, went, or got children of its own.
struct Movement {
  std::uint64_t number = 0;
  std::uint32_t parent = 0;
  std::uint32_t child = 0;
};

/// The keys of the memory by the parts of their names, with what is known of each.
///
/// Every change has a number, by which those who look now and then see what is new to them.
///
/// @par Threads  One at a time.
class Tree {
 public:
  /// So many movements and raises are remembered. Who missed some looks at everything again.
  static constexpr std::size_t kMovements = 8192;
  static constexpr std::size_t kRaises = 2000;

  Tree();

  // --- What a follower tells --------------------------------------------------------------------------------------
  void change(const journal::Change& change);
  void unchanged(std::string_view key);
  /// Keys that are not named from here to `complete` are gone.
  void beginSnapshot();
  void complete();

  // --- What others see --------------------------------------------------------------------------------------------
  const Node& root() const { return *root_; }
  const Node* node(std::uint32_t id) const;
  const Node* key(std::string_view name) const;
  std::uint64_t count() const { return count_; }
  bool isComplete() const { return isComplete_; }
  std::uint32_t keys() const { return root_->keys; }
  std::uint32_t keysOf(std::uint8_t kind) const { return kind < kinds_.size() ? kinds_[kind] : 0; }
  std::uint64_t changesOf(journal::What what) const { return whats_[static_cast<std::size_t>(what)]; }
  std::uint64_t gaps() const { return gaps_; }
  /// Of the memory that was heard of last: another one each time it is made. 0 before the first change.
  std::uint64_t epoch() const { return epoch_; }
  const std::vector<std::string>& authors() const { return authors_; }
  const std::deque<Movement>& movements() const { return movements_; }
  const std::deque<Raise>& raises() const { return raises_; }
  /// Keys whose names contain `text`, whatever the case of its letters.
  /// @param under  Only those below this name, of which the rest is looked at; empty for all.
  /// @param most   So many are given.
  /// @param total  How many there are.
  std::vector<const Node*> find(std::string_view text, std::string_view under, std::size_t most,
                                std::size_t& total) const;
  /// All keys, in no order.
  const std::unordered_map<std::string_view, Node*>& all() const { return keys_; }

  // --- Plotting ---------------------------------------------------------------------------------------------------
  /// Collects the numbers of a key from now on. The key need not be there yet.
  /// @param tap  Until `untap`.
  void tap(const std::string& key, Tap& tap);
  void untap(Tap& tap);

 private:
  Node& fileKey(std::string_view key);
  Node& child(Node& parent, std::string_view path, std::size_t begin);
  void removeKey(Node& node);
  void touch(Node& node, std::uint32_t changes);
  void move(const Node& node);
  void feedTaps(const Node& node);
  void noteRaise(const journal::Change& change, const Node& node);
  std::uint16_t authorNumber(std::string_view author);

  std::unique_ptr<Node> root_;
  std::unordered_map<std::uint32_t, Node*> nodes_;
  std::unordered_map<std::string_view, Node*> keys_;
  std::multimap<std::string, Tap*, std::less<>> taps_;
  std::vector<std::string> authors_{""};
  std::map<std::string, std::uint16_t, std::less<>> authorNumbers_;
  std::deque<Movement> movements_;
  std::deque<Raise> raises_;
  std::array<std::uint32_t, 8> kinds_{};
  std::array<std::uint64_t, journal::kWhats> whats_{};
  std::uint64_t count_ = 0;
  std::uint64_t generation_ = 0;
  std::uint64_t gaps_ = 0;
  std::uint64_t epoch_ = 0;
  std::uint32_t lastId_ = 0;
  bool isComplete_ = false;
};

}  // namespace HX::web
