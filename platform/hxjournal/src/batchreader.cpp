#include "batchflags.h"

#include <hxjournal/batch.h>

#include <chrono>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace HX::journal {
namespace {

using std::chrono::microseconds;

[[noreturn]] void failBatch(std::string_view why) {
  throw std::runtime_error("a batch of changes that is none: " + std::string(why));
}

std::int64_t readNumber(const HXValue& value, const char* what) {
  if (value.isInt()) return value.asInt();
  if (!value.isInt64()) failBatch(std::string(what) + " is no integer");
  return value.asInt64();
}

void requireRange(std::int64_t number, const char* what, std::int64_t most) {
  if (number < 0 || number > most) failBatch(std::string(what) + " is out of range");
}

Position readPosition(const HXValue& value, const char* what) {
  const auto* list = value.listIf();
  if (!list || list->size() != 2) failBatch(std::string(what) + " is no place");
  return {static_cast<std::uint64_t>(readNumber((*list)[0], what)),
          static_cast<std::uint64_t>(readNumber((*list)[1], what))};
}

/// Calls `use` with the number of each line: those of a list, or one for all. None for a column of zeros, as a line has
/// it anyway.
template <class Use>
void readColumn(const HXValue& batch, const char* name, std::size_t lines, const Use& use) {
  const HXValue* const column = batch.find(name);
  if (!column) return;
  const auto* const list = column->listIf();
  if (list && list->size() != lines) failBatch("its columns differ in length");
  for (std::size_t i = 0; i < lines; ++i) use(i, readNumber(list ? (*list)[i] : *column, name));
}

/// @param most  Of numbers that are not negative.
template <class Use>
void readColumn(const HXValue& batch, const char* name, std::size_t lines, std::int64_t most, const Use& use) {
  readColumn(batch, name, lines, [&](std::size_t line, std::int64_t number) {
    requireRange(number, name, most);
    use(line, number);
  });
}

TimePoint timeOf(std::int64_t base, std::int64_t offset) {
  constexpr auto kMost = std::chrono::floor<microseconds>(TimePoint::max().time_since_epoch()).count();
  std::int64_t sum = 0;
  if (__builtin_add_overflow(base, offset, &sum) || sum > kMost || sum < -kMost) failBatch("times is out of range");
  return TimePoint(microseconds(sum));
}

bool flagOf(const HXValue& batch, const char* name) {
  const HXValue* found = batch.find(name);
  if (!found) return false;
  if (!found->isBool()) failBatch(std::string(name) + " is no bool");
  return found->asBool();
}

}  // namespace

void BatchReader::learn(Texts& texts, const HXValue& batch, std::string_view entry) {
  const HXValue* found = batch.find(entry);
  if (!found) return;
  const auto* list = found->listIf();
  if (!list) failBatch(std::string(entry) + " is no list");
  // A writer forgets them between two batches.
  if (texts->size() > BatchWriter::kMostNames) failBatch("too many " + std::string(entry));
  for (const HXValue& text : *list) {
    if (!text.stringIf()) failBatch(std::string(entry) + " has an element that is no string");
    texts->push_back(*text.stringIf());
  }
}

Batch BatchReader::read(const HXValue& batch) {
  if (!batch.mapIf()) failBatch("no map");
  Batch out;
  const HXValue* number = batch.find("number");
  const HXValue* position = batch.find("position");
  if (!number || !position) failBatch("without number or position");
  out.number = static_cast<std::uint64_t>(readNumber(*number, "number"));
  if (out.number != ++number_) failBatch("not the next one");
  out.position = readPosition(*position, "position");
  if (flagOf(batch, "forget")) {
    // Others than those that batches look at which were read before.
    names_ = std::make_shared<Batch::Texts>();
    authors_ = std::make_shared<Batch::Texts>();
  }
  learn(names_, batch, "names");
  learn(authors_, batch, "authors");
  out.acknowledge = flagOf(batch, "ack");
  if (const HXValue* gap = batch.find("gap")) {
    const auto* list = gap->listIf();
    if (!list || list->size() != 3 || !(*list)[2].isBool()) failBatch("gap is none");
    out.gap = Gap{readPosition((*list)[0], "gap"), readPosition((*list)[1], "gap"), (*list)[2].asBool()};
  }
  if (const HXValue* complete = batch.find("complete")) out.complete = readPosition(*complete, "complete");
  out.pause = flagOf(batch, "pause");
  readLines(batch, out);
  return out;
}

void BatchReader::readLines(const HXValue& batch, Batch& out) const {
  const HXValue* keys = batch.find("keys");
  if (!keys) return;
  const HXValue* found = batch.find("values");
  const auto* const values = found ? found->listIf() : nullptr;
  if (!keys->listIf() || !values) failBatch("keys or values is no list");
  const std::size_t lines = values->size();
  const HXValue* first = batch.find("first");
  const HXValue* base = batch.find("time");
  if (!first || !base) failBatch("without first or time");
  const auto revision = static_cast<std::uint64_t>(readNumber(*first, "first"));
  const std::int64_t time = readNumber(*base, "time");
  out.names = names_;
  out.authors = authors_;
  auto& all = out.lines;
  all.resize(lines);
  const TimePoint begin = timeOf(time, 0);
  for (std::size_t i = 0; i < lines; ++i) {
    Change& change = all[i].change;
    change.value = (*values)[i];
    change.at = {out.position.epoch, revision + i};
    change.time = begin;
  }
  readTexts(batch, out);
  readNumbers(batch, out, time);
}

void BatchReader::readTexts(const HXValue& batch, Batch& out) {
  const auto& names = *out.names;
  const auto& authors = *out.authors;
  readColumn(batch, "keys", out.lines.size(), std::ssize(names) - 1,
             [&](std::size_t i, std::int64_t n) { out.lines[i].change.key = names[static_cast<std::size_t>(n)]; });
  readColumn(batch, "by", out.lines.size(), std::ssize(authors), [&](std::size_t i, std::int64_t n) {
    if (n != 0) out.lines[i].change.author = authors[static_cast<std::size_t>(n - 1)];
  });
}

void BatchReader::readNumbers(const HXValue& batch, Batch& out, std::int64_t base) {
  constexpr std::int64_t kUint32 = std::numeric_limits<std::uint32_t>::max();
  constexpr std::int64_t kUint8 = std::numeric_limits<std::uint8_t>::max();
  auto& all = out.lines;
  const std::size_t lines = all.size();
  readColumn(batch, "skips", lines,
             [&](std::size_t i, std::int64_t n) { all[i].change.at.revision += static_cast<std::uint64_t>(n); });
  readColumn(batch, "times", lines, [&](std::size_t i, std::int64_t n) { all[i].change.time = timeOf(base, n); });
  readColumn(batch, "whats", lines, kWhats - 1,
             [&](std::size_t i, std::int64_t n) { all[i].change.what = static_cast<What>(n); });
  readColumn(batch, "kinds", lines, kUint8,
             [&](std::size_t i, std::int64_t n) { all[i].change.kind = static_cast<std::uint8_t>(n); });
  readColumn(batch, "nths", lines, kUint32,
             [&](std::size_t i, std::int64_t n) { all[i].change.nth = static_cast<std::uint32_t>(n); });
  readColumn(batch, "leftOut", lines, kUint32,
             [&](std::size_t i, std::int64_t n) { all[i].change.leftOut = static_cast<std::uint32_t>(n); });
  readColumn(batch, "flags", lines, kFlags, [&](std::size_t i, std::int64_t n) {
    Change& change = all[i].change;
    all[i].isUnchanged = (n & kUnchanged) != 0;
    change.isState = (n & kState) != 0;
    change.changedKind = (n & kChangedKind) != 0;
    change.byAddress = (n & kByAddress) != 0;
    change.withheld = (n & kWithheld) != 0;
  });
}

}  // namespace HX::journal
