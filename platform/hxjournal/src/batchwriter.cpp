#include "batchflags.h"

#include <hxjournal/batch.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

namespace HX::journal {
namespace {

using std::chrono::microseconds;

constexpr std::size_t kLine = 16;  // What a line takes beside its value and a new name, about.

HXValue numberValue(std::int64_t number) {
  if (std::in_range<std::int32_t>(number)) return static_cast<std::int32_t>(number);
  return number;
}

std::int64_t bitsOf(std::uint64_t number) { return static_cast<std::int64_t>(number); }

HXValue positionValue(Position position) {
  return HXValue::list({numberValue(bitsOf(position.epoch)), numberValue(bitsOf(position.revision))});
}

/// What a value takes in a message; none when it does not fit one. Of lists and maps one level is looked at after
/// another, and no more than is allowed.
std::optional<std::size_t> weightOf(const HXValue& value) {
  constexpr std::size_t kElement = 8;
  if (value.getType() < HXValue::Type::String) return kElement;  // As most are.
  if (!value.listIf() && !value.mapIf()) {
    const auto* text = value.stringIf();
    const auto* binary = value.binaryIf();
    const std::size_t bytes = kElement + (text ? text->size() : 0) + (binary ? binary->size() : 0);
    return bytes > BatchWriter::kMostBytes ? std::nullopt : std::optional(bytes);
  }
  std::size_t bytes = 0;
  std::vector<const HXValue*> level{&value};
  std::vector<const HXValue*> below;
  for (std::size_t depth = 0; !level.empty(); ++depth) {
    if (depth > BatchWriter::kMostDepth) return std::nullopt;
    below.clear();
    for (const HXValue* one : level) {
      const auto* text = one->stringIf();
      const auto* binary = one->binaryIf();
      bytes += kElement * (1 + one->getSize()) + (text ? text->size() : 0) + (binary ? binary->size() : 0);
      if (bytes > BatchWriter::kMostBytes) return std::nullopt;
      if (const auto* list = one->listIf()) {
        for (const HXValue& element : *list) below.push_back(&element);
      }
      if (const auto* map = one->mapIf()) {
        for (const auto& [key, element] : *map) {
          bytes += key.size();
          below.push_back(&element);
        }
      }
    }
    level.swap(below);
  }
  return bytes;
}

}  // namespace

// --- Numbers --------------------------------------------------------------------------------------------------------

/// Who writes keys writes them in the same order again and again: what came next the last time is looked at first, for
/// that takes a third of the time.
std::size_t BatchWriter::Numbers::numberOf(std::string_view text, HXValue::List& added) {
  if (last_ < known_.size()) {
    const std::size_t guess = known_[last_].next;
    if (*known_[guess].text == text) return last_ = guess;
  }
  const std::size_t number = find(text, added);
  if (last_ < known_.size()) known_[last_].next = number;
  return last_ = number;
}

std::size_t BatchWriter::Numbers::find(std::string_view text, HXValue::List& added) {
  const auto found = numbers_.find(text);
  if (found != numbers_.end()) return found->second;
  known_.reserve(std::max(known_.capacity(), 2 * known_.size() + 1));
  added.emplace_back(text);
  try {
    const std::size_t number = known_.size();
    known_.push_back({&numbers_.emplace(text, number).first->first, number});
    return number;
  } catch (...) {
    added.pop_back();
    throw;
  }
}

void BatchWriter::Numbers::clear() noexcept {
  numbers_.clear();
  known_.clear();
  last_ = 0;
}

// --- Columns --------------------------------------------------------------------------------------------------------

/// @param lines  That it has so far.
inline void BatchWriter::Column::add(std::int64_t number, std::size_t lines) {
  if (lines == 0) first_ = number;
  if (all_.empty() && number == first_) return;
  if (all_.empty()) spread(lines);
  all_.push_back(numberValue(number));
}

void BatchWriter::Column::spread(std::size_t lines) {
  all_.reserve(std::max(2 * lines, usual_));
  all_.assign(lines, numberValue(first_));
}

void BatchWriter::Column::cut(std::size_t lines) noexcept {
  if (all_.size() > lines) all_.erase(all_.begin() + static_cast<std::ptrdiff_t>(lines), all_.end());
}

void BatchWriter::Column::put(HXValue::Map& batch, const char* name) {
  if (!all_.empty()) {
    usual_ = all_.size();
    batch.emplace(name, HXValue::list(std::exchange(all_, {})));
  } else if (first_ != 0) {
    batch.emplace(name, numberValue(first_));
  }
}

// --- BatchWriter ----------------------------------------------------------------------------------------------------

void BatchWriter::change(const Change& change) {
  const auto weight = weightOf(change.value);
  const std::size_t known = names_.size() + authors_.size();
  Line line;
  line.key = static_cast<std::int64_t>(names_.numberOf(change.key, newNames_));
  if (!change.author.empty()) line.by = static_cast<std::int64_t>(authors_.numberOf(change.author, newAuthors_)) + 1;
  line.revision = bitsOf(change.at.revision);
  line.time = std::chrono::floor<microseconds>(change.time.time_since_epoch()).count();
  line.nth = change.nth;
  line.leftOut = change.leftOut;
  line.what = static_cast<std::int64_t>(change.what);
  line.kind = change.kind;
  line.flags = (change.isState ? kState : 0) | (change.changedKind ? kChangedKind : 0) |
               (change.byAddress ? kByAddress : 0) | (weight ? 0 : kWithheld);
  add(line, weight ? change.value : HXValue());
  bytes_ += kLine + weight.value_or(0);
  if (names_.size() + authors_.size() != known) bytes_ += change.key.size() + change.author.size();
}

void BatchWriter::unchanged(std::string_view key, Position at) {
  Line line;
  line.key = static_cast<std::int64_t>(names_.numberOf(key, newNames_));
  line.revision = bitsOf(at.revision);
  line.time = time_;
  line.flags = kUnchanged;
  add(line, HXValue());
  bytes_ += kLine + key.size();
}

void BatchWriter::add(const Line& line, const HXValue& value) {
  const std::size_t lines = lines_;
  if (lines == 0) {
    first_ = line.revision;
    base_ = line.time;
  }
  try {
    if (lines == 0) {
      keys_.reserve(usual_);
      values_.reserve(usual_);
    }
    keys_.push_back(numberValue(line.key));
    values_.push_back(value);
    skips_.add(line.revision - first_ - static_cast<std::int64_t>(lines), lines);
    times_.add(line.time - base_, lines);
    whats_.add(line.what, lines);
    kinds_.add(line.kind, lines);
    nths_.add(line.nth, lines);
    by_.add(line.by, lines);
    flags_.add(line.flags, lines);
    leftOut_.add(line.leftOut, lines);
  } catch (...) {
    cut(lines);
    throw;
  }
  time_ = line.time;
  ++lines_;
}

void BatchWriter::cut(std::size_t lines) noexcept {
  for (auto* list : {&keys_, &values_}) {
    if (list->size() > lines) list->erase(list->begin() + static_cast<std::ptrdiff_t>(lines), list->end());
  }
  for (auto* column : {&skips_, &times_, &whats_, &kinds_, &nths_, &by_, &flags_, &leftOut_}) column->cut(lines);
}

void BatchWriter::putLines(HXValue::Map& batch) {
  usual_ = lines_;
  batch.emplace("first", numberValue(first_));
  batch.emplace("time", numberValue(base_));
  batch.emplace("keys", HXValue::list(std::exchange(keys_, {})));
  batch.emplace("values", HXValue::list(std::exchange(values_, {})));
  skips_.put(batch, "skips");
  times_.put(batch, "times");
  whats_.put(batch, "whats");
  kinds_.put(batch, "kinds");
  nths_.put(batch, "nths");
  by_.put(batch, "by");
  flags_.put(batch, "flags");
  leftOut_.put(batch, "leftOut");
}

HXValue BatchWriter::take(Position position, bool acknowledge) {
  HXValue::Map batch{{"number", numberValue(bitsOf(number_))}, {"position", positionValue(position)}};
  if (acknowledge) batch.emplace("ack", true);
  if (forget_) batch.emplace("forget", true);
  if (gap_) {
    batch.emplace("gap", HXValue::list({positionValue(gap_->from), positionValue(gap_->to), gap_->full}));
  }
  if (complete_) batch.emplace("complete", positionValue(*complete_));
  if (pause_) batch.emplace("pause", true);
  if (!newNames_.empty()) batch.emplace("names", HXValue::list(std::exchange(newNames_, {})));
  if (!newAuthors_.empty()) batch.emplace("authors", HXValue::list(std::exchange(newAuthors_, {})));
  if (lines_ != 0) putLines(batch);
  HXValue taken = HXValue::map(std::move(batch));
  clear();
  ++number_;
  forget_ = false;
  if (names_.size() > kMostNames || authors_.size() > kMostNames) forget();
  return taken;
}

void BatchWriter::startOver() noexcept {
  clear();
  forget();
}

void BatchWriter::forget() noexcept {
  forget_ = true;
  names_.clear();
  authors_.clear();
}

void BatchWriter::clear() noexcept {
  cut(0);
  lines_ = 0;
  time_ = 0;
  newNames_.clear();
  newAuthors_.clear();
  gap_.reset();
  complete_.reset();
  pause_ = false;
  bytes_ = 0;
}

}  // namespace HX::journal
