#include <hxjournal/batch.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

namespace HX::journal {
namespace {

using std::chrono::microseconds;

// Bits of a line's flags.
constexpr std::int64_t kState = 1;
constexpr std::int64_t kChangedKind = 2;
constexpr std::int64_t kByAddress = 4;
constexpr std::int64_t kUnchanged = 8;
constexpr std::int64_t kWithheld = 16;
constexpr std::int64_t kFlags = 31;

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

// --- Reading --------------------------------------------------------------------------------------------------------

[[noreturn]] void failBatch(std::string_view why) {
  throw std::runtime_error("a batch of changes that is none: " + std::string(why));
}

std::int64_t readNumber(const HXValue& value, std::string_view what) {
  if (!value.isInt() && !value.isInt64()) failBatch(std::string(what) + " is no integer");
  return value.toInt64();
}

std::int64_t readNumber(const HXValue& value, std::string_view what, std::int64_t most) {
  const std::int64_t number = readNumber(value, what);
  if (number < 0 || number > most) failBatch(std::string(what) + " is out of range");
  return number;
}

Position readPosition(const HXValue& value, std::string_view what) {
  const auto* list = value.listIf();
  if (!list || list->size() != 2) failBatch(std::string(what) + " is no place");
  return {static_cast<std::uint64_t>(readNumber((*list)[0], what)),
          static_cast<std::uint64_t>(readNumber((*list)[1], what))};
}

/// A column of numbers as `putColumn` puts it.
class Column {
 public:
  Column(const HXValue& batch, const char* name, std::size_t lines) : name_(name), value_(batch.find(name)) {
    if (!value_) return;
    list_ = value_->listIf();
    if (list_ && list_->size() != lines) failBatch("its columns differ in length");
    if (!list_) all_ = readNumber(*value_, name);
  }
  std::int64_t operator[](std::size_t line) const { return list_ ? readNumber((*list_)[line], name_) : all_; }
  std::int64_t at(std::size_t line, std::int64_t most) const {
    const std::int64_t number = (*this)[line];
    if (number < 0 || number > most) failBatch(std::string(name_) + " is out of range");
    return number;
  }

 private:
  const char* const name_;
  const HXValue* const value_;
  const HXValue::List* list_ = nullptr;
  std::int64_t all_ = 0;
};

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

// --- BatchWriter ----------------------------------------------------------------------------------------------------

std::int64_t BatchWriter::numberOf(Numbers& numbers, std::string_view text, HXValue::List& added, std::int64_t first) {
  const auto known = numbers.find(text);
  if (known != numbers.end()) return known->second;
  const auto number = first + static_cast<std::int64_t>(numbers.size());
  added.emplace_back(text);
  try {
    numbers.emplace(text, number);
  } catch (...) {
    added.pop_back();
    throw;
  }
  bytes_ += text.size();
  return number;
}

void BatchWriter::change(const Change& change) {
  const auto weight = weightOf(change.value);
  Line line;
  if (weight) line.value = change.value;
  line.key = numberOf(names_, change.key, newNames_, 0);
  line.revision = bitsOf(change.at.revision);
  line.time = std::chrono::floor<microseconds>(change.time.time_since_epoch()).count();
  line.nth = change.nth;
  line.leftOut = change.leftOut;
  if (!change.author.empty()) line.by = numberOf(authors_, change.author, newAuthors_, 1);
  line.what = static_cast<std::int64_t>(change.what);
  line.kind = change.kind;
  line.flags = (change.isState ? kState : 0) | (change.changedKind ? kChangedKind : 0) |
               (change.byAddress ? kByAddress : 0) | (weight ? 0 : kWithheld);
  lines_.push_back(std::move(line));
  bytes_ += kLine + weight.value_or(0);
}

void BatchWriter::unchanged(std::string_view key, Position at) {
  Line line;
  line.key = numberOf(names_, key, newNames_, 0);
  line.revision = bitsOf(at.revision);
  if (!lines_.empty()) line.time = lines_.back().time;
  line.flags = kUnchanged;
  lines_.push_back(std::move(line));
  bytes_ += kLine;
}

/// Where all lines have one number, that.
void BatchWriter::putColumn(HXValue::Map& batch, const char* name, std::int64_t Line::*member) const {
  const std::int64_t first = lines_.front().*member;
  if (std::ranges::all_of(lines_, [&](const Line& line) { return line.*member == first; })) {
    if (first != 0) batch.emplace(name, numberValue(first));
    return;
  }
  HXValue::List column;
  column.reserve(lines_.size());
  for (const Line& line : lines_) column.push_back(numberValue(line.*member));
  batch.emplace(name, HXValue::list(std::move(column)));
}

void BatchWriter::putLines(HXValue::Map& batch) const {
  const Line& first = lines_.front();
  HXValue::List keys, values, times, skips;
  for (auto* column : {&keys, &values, &times, &skips}) column->reserve(lines_.size());
  bool hasSkips = false;
  bool hasTimes = false;
  for (const Line& line : lines_) {
    const std::int64_t skip = line.revision - first.revision - static_cast<std::int64_t>(keys.size());
    keys.push_back(numberValue(line.key));
    values.push_back(line.value);
    times.push_back(numberValue(line.time - first.time));
    skips.push_back(numberValue(skip));
    hasSkips |= skip != 0;
    hasTimes |= line.time != first.time;
  }
  batch.emplace("first", numberValue(first.revision));
  batch.emplace("time", numberValue(first.time));
  batch.emplace("keys", HXValue::list(std::move(keys)));
  batch.emplace("values", HXValue::list(std::move(values)));
  if (hasSkips) batch.emplace("skips", HXValue::list(std::move(skips)));
  if (hasTimes) batch.emplace("times", HXValue::list(std::move(times)));
  putColumn(batch, "whats", &Line::what);
  putColumn(batch, "kinds", &Line::kind);
  putColumn(batch, "nths", &Line::nth);
  putColumn(batch, "by", &Line::by);
  putColumn(batch, "flags", &Line::flags);
  putColumn(batch, "leftOut", &Line::leftOut);
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
  if (!newNames_.empty()) batch.emplace("names", HXValue::list(newNames_));
  if (!newAuthors_.empty()) batch.emplace("authors", HXValue::list(newAuthors_));
  if (!lines_.empty()) putLines(batch);
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
  lines_.clear();
  newNames_.clear();
  newAuthors_.clear();
  gap_.reset();
  complete_.reset();
  pause_ = false;
  bytes_ = 0;
}

// --- BatchReader ----------------------------------------------------------------------------------------------------

void BatchReader::learn(Texts& texts, const HXValue& batch, std::string_view entry) {
  const HXValue* found = batch.find(entry);
  if (!found) return;
  const auto* list = found->listIf();
  if (!list) failBatch(std::string(entry) + " is no list");
  // A writer forgets them between two batches.
  if (texts.size() > BatchWriter::kMostNames) failBatch("too many " + std::string(entry));
  for (const HXValue& text : *list) {
    if (!text.stringIf()) failBatch(std::string(entry) + " has an element that is no string");
    texts.push_back(std::make_shared<const std::string>(*text.stringIf()));
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
    names_.clear();
    authors_.clear();
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
  const HXValue* values = batch.find("values");
  if (!keys->listIf() || !values || !values->listIf()) failBatch("keys or values is no list");
  const std::size_t lines = keys->listIf()->size();
  if (values->listIf()->size() != lines) failBatch("its columns differ in length");
  const HXValue* first = batch.find("first");
  const HXValue* base = batch.find("time");
  if (!first || !base) failBatch("without first or time");
  const auto revision = static_cast<std::uint64_t>(readNumber(*first, "first"));
  const std::int64_t time = readNumber(*base, "time");
  const Column skips(batch, "skips", lines), times(batch, "times", lines), whats(batch, "whats", lines),
      kinds(batch, "kinds", lines), nths(batch, "nths", lines), by(batch, "by", lines), flags(batch, "flags", lines),
      leftOut(batch, "leftOut", lines);
  constexpr std::int64_t kUint32 = std::numeric_limits<std::uint32_t>::max();
  constexpr std::int64_t kUint8 = std::numeric_limits<std::uint8_t>::max();
  const auto knownNames = static_cast<std::int64_t>(names_.size());
  const auto knownAuthors = static_cast<std::int64_t>(authors_.size());
  out.lines.resize(lines);
  for (std::size_t i = 0; i < lines; ++i) {
    Batch::Line& line = out.lines[i];
    line.key = names_[static_cast<std::size_t>(readNumber((*keys->listIf())[i], "keys", knownNames - 1))];
    Change& change = line.change;
    change.key = *line.key;
    const std::int64_t flag = flags.at(i, kFlags);
    line.isUnchanged = (flag & kUnchanged) != 0;
    change.isState = (flag & kState) != 0;
    change.changedKind = (flag & kChangedKind) != 0;
    change.byAddress = (flag & kByAddress) != 0;
    change.withheld = (flag & kWithheld) != 0;
    change.value = (*values->listIf())[i];
    change.at = {out.position.epoch, revision + i + static_cast<std::uint64_t>(skips[i])};
    change.time = timeOf(time, times[i]);
    change.what = static_cast<What>(whats.at(i, kWhats - 1));
    change.kind = static_cast<std::uint8_t>(kinds.at(i, kUint8));
    change.nth = static_cast<std::uint32_t>(nths.at(i, kUint32));
    change.leftOut = static_cast<std::uint32_t>(leftOut.at(i, kUint32));
    if (const auto author = static_cast<std::size_t>(by.at(i, knownAuthors))) {
      line.author = authors_[author - 1];
      change.author = *line.author;
    }
  }
}

}  // namespace HX::journal
