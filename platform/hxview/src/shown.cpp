#include <hxvalue/msgpack.h>
#include <hxview/cell.h>
#include <hxview/clock.h>
#include <hxview/futex.h>
#include <hxview/shown.h>

#include <span>
#include <stdexcept>

namespace HX::view {
namespace {

Kind kindOf(const HXValue& value) noexcept { return {value.getType(), State::Present, 0}; }

/// As a cell has it. It has no room for what is no number, and says so, for a number may come again.
Content contentOf(const HXValue& value, std::uint64_t written) noexcept {
  Kind kind = kindOf(value);
  if (value.isValid() && !value.isScalar()) kind.state = State::OtherType;
  return {written, kind.word(), kind.state == State::Present ? value.scalarBits() : 0};
}

Content contentOf(State state) noexcept { return {monotonicNow(), Kind{HXValue::Type::Invalid, state, 0}.word(), 0}; }

}  // namespace

void Shown::publish(const HXValue& value, std::int64_t systemNanoseconds) const noexcept {
  publish(contentOf(value, monotonicAt(systemNanoseconds)));
}

void Shown::publishOld(const HXValue& value, std::int64_t systemNanoseconds) const noexcept {
  publish(contentOf(value, monotonicThen(systemNanoseconds)));
}

void Shown::publish(State state) const noexcept { publish(contentOf(state)); }

void Shown::introduce(const HXValue& value, std::int64_t systemNanoseconds) const {
  prepare(value, parts_.ringsKnown);
  const Content content = contentOf(value, monotonicThen(systemNanoseconds));
  if (parts_.isCellNew) view::publish(*parts_.cell, content);
  commit(content, parts_.ringsKnown);
}

void Shown::introduce(State state) const noexcept {
  prepare(state, parts_.ringsKnown);
  const Content content = contentOf(state);
  if (parts_.isCellNew) view::publish(*parts_.cell, content);
  commit(content, parts_.ringsKnown);
}

// Where there are rings, the Preparation holds the lock of these three.

void Shown::publish(const Content& content) const noexcept {
  if (cell_) view::publish(*cell_, content);
  if (!isPlain_) commit(content, 0);
}

void Shown::commit(const Content& content, std::size_t firstRing) const noexcept HX_UNCHECKED {
  for (std::size_t i = firstRing; i < rings_.size(); ++i) rings_[i].commit(content.written);
}

void Shown::prepare(const HXValue& value, std::size_t firstRing) const HX_UNCHECKED {
  if (firstRing == rings_.size()) return;
  std::span<const std::byte> bytes;
  Kind kind = kindOf(value);
  const std::uint64_t bits = value.scalarBits();
  if (value.isScalar()) {
    bytes = std::as_bytes(std::span(&bits, 1));
  } else if (const std::string* const text = value.stringIf()) {
    bytes = std::as_bytes(std::span(*text));
  } else if (const HXValue::Binary* const binary = value.binaryIf()) {
    bytes = *binary;
  } else if (value.isValid()) {
    encoded_.clear();
    try {
      appendMsgpack(encoded_, value);
    } catch (const std::runtime_error&) {
      kind.state = State::TooLarge;  // For the format; so for every ring.
    }
    bytes = encoded_;
  }
  for (std::size_t i = firstRing; i < rings_.size(); ++i) rings_[i].prepare(kind, bytes);
}

void Shown::prepare(State state, std::size_t firstRing) const noexcept HX_UNCHECKED {
  for (std::size_t i = firstRing; i < rings_.size(); ++i) rings_[i].prepare({HXValue::Type::Invalid, state, 0}, {});
}

/// Either the sequence is seen by who is about to sleep, or the bell is seen here: both say what they have to say, and
/// look then, in the one order of all that is sequentially consistent.
void Shown::wake() const noexcept {
  int due = 0;
  const Word* sequence = nullptr;
  for (const Target& target : parts_.targets) {
    const std::uint64_t published = target.sequence->fetch_add(0, std::memory_order_seq_cst);
    for (const auto& bell : target.bells) {
      const std::uint64_t awaited = bell->word->load(std::memory_order_seq_cst);
      if (awaited == 0 || awaited > published) continue;
      // Not in one step, for which each bell would have to wait for the one before: two writers may ring twice.
      if (bell->rung.load(std::memory_order_relaxed) == awaited) continue;
      bell->rung.store(awaited, std::memory_order_relaxed);
      sequence = target.sequence;
      ++due;
    }
  }
  if (due == 1) wakeAll(*sequence);
  if (due > 1) parts_.waker->wakeLater(shared_from_this());
}

void Shown::ring() const noexcept {
  for (const Target& target : parts_.targets) wakeAll(*target.sequence);
}

Preparation::Preparation(const Shown* shown, const HXValue& value, Afterwards& after) : shown_(shown) {
  if (!shown || shown->isPlain()) return;
  if (!shown->parts_.targets.empty()) after.shown_ = shown->shared_from_this();
  lock_.emplace(shown->mutex_);
  shown->prepare(value);
}

Preparation::Preparation(const Shown* shown, State state, Afterwards& after) : shown_(shown) {
  if (!shown || shown->isPlain()) return;
  if (!shown->parts_.targets.empty()) after.shown_ = shown->shared_from_this();
  lock_.emplace(shown->mutex_);
  shown->prepare(state);
}

}  // namespace HX::view
