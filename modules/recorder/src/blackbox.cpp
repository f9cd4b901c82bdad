#include "blackbox.h"

#include "crashdump.h"
#include "recording/filename.h"
#include "recording/mend.h"

#include <libmw/clock.h>

#include <algorithm>
#include <functional>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kChunk = std::size_t{256} << 10U;
constexpr auto kChunkAge = 400ms;
constexpr auto kLook = 100ms;
constexpr std::uint64_t kPieces = 4;      // Of the bytes that are kept.
constexpr std::size_t kFewestPieces = 2;  // Of which the older one is a whole one.
constexpr std::string_view kPrefix = "blackbox-";

/// Of what may stand in a name of a file.
std::string plain(std::string name) {
  for (char& c : name) {
    const bool isPlain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
    if (!isPlain) c = '_';
  }
  return name.substr(0, 80);
}

}  // namespace

BlackBox::BlackBox(BlackBoxOptions options, Feed feed)
    : options_(std::move(options)), feed_(std::move(feed)), when_(options_.when) {
  std::error_code error;
  std::filesystem::create_directories(options_.folder, error);
  if (error) throw RecordingError(fmt::format("{}: {}", options_.folder.string(), error.message()));
  const journal::Position latest = feed_.latest();
  {
    const MutexLock lock(mutex_);
    latest_ = latest;
    statesAt_ = mw::systemNow();
    pieces_.push_back({Clock::now(), {}});
    const auto crashFile = options_.folder / fmt::format("{}crash-{}.mcap", kPrefix, ::getpid());
    isArmed_ = crashdump::arm(crashFile, headOf(0));
  }
  journal::Filter filter(options_.keys);
  if (!options_.keys.empty()) {
    filter.addKey(std::string(kNoteKey));
    for (const std::string& event : options_.when) filter.add(event);
  }
  journal::FollowOptions follow;
  follow.promptness = journal::Promptness::Relaxed;
  follow.onGap = [this](const journal::Gap& gap) {
    const MutexLock lock(mutex_);
    latest_ = gap.to;
    statesAt_ = mw::systemNow();
    encoder_.add(gap, statesAt_);
  };
  follow.onUnchanged = [this](std::string_view key, journal::Position) {
    const MutexLock lock(mutex_);
    encoder_.name(key);
  };
  follow.onComplete = [this](journal::Position) {
    const MutexLock lock(mutex_);
    encoder_.forgetUnnamed(mw::systemNow());
    hasBegun_ = true;
  };
  follow_ = feed_.follow(
      std::move(filter), [this](const journal::Change& change) { onChange(change); }, std::move(follow));
  thread_ = std::thread([this] { run(); });
}

BlackBox::~BlackBox() {
  follow_.end();
  {
    const MutexLock lock(mutex_);
    ends_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  if (isArmed_) crashdump::disarm();
}

void BlackBox::onChange(const journal::Change& change) {
  const MutexLock lock(mutex_);
  if (encoder_.chunk().isEmpty()) chunkBegan_ = Clock::now();
  if (isArmed_) crashdump::setOpen({});
  encoder_.add(change, statesAt_);
  if (isArmed_) crashdump::setOpen(encoder_.chunk().records);
  if (change.at.revision > latest_.revision) latest_ = change.at;
  if (encoder_.chunk().records.size() >= kChunk) closeChunk();
  const bool isRaise = change.what == What::Raised || change.what == What::RaisedMicro;
  if (change.isState || !isRaise || options_.when.empty() || !when_.wantsKey(change.key)) return;
  const auto now = Clock::now();
  // One that comes while another one waits has its whole time in the same file.
  if (!trigger_) trigger_ = Trigger{std::string(change.key), now - options_.before, {}};
  trigger_->until = now + options_.after;
  changed_.notify_all();
}

void BlackBox::closeChunk() {
  if (encoder_.chunk().isEmpty()) return;
  keepChunk();
  if (isPieceFull()) beginPiece();
  dropOld();
}

void BlackBox::keepChunk() {
  if (isArmed_) crashdump::setOpen({});
  auto record = std::make_shared<const std::string>(seal(encoder_.takeChunk(), compressor_).record);
  if (isArmed_) crashdump::push(*record);
  bytes_ += record->size();
  pieces_.back().bytes += record->size();
  pieces_.back().chunks.push_back(std::move(record));
}

/// A piece begins with what all keys hold, which may be much: enough has to lie between for that to be worth while.
bool BlackBox::isPieceFull() const {
  const Piece& piece = pieces_.back();
  if (Clock::now() - piece.began >= options_.before / 2) return true;
  return piece.bytes - piece.states >= std::max(options_.bytes, piece.states) / kPieces;
}

void BlackBox::beginPiece() {
  pieces_.push_back({Clock::now(), {}});
  encoder_.beginPiece(mw::systemNow());
  if (encoder_.chunk().isEmpty()) return;
  keepChunk();
  pieces_.back().states = pieces_.back().bytes;
}

void BlackBox::dropOld() {
  auto needed = Clock::now() - options_.before;
  if (trigger_) needed = std::min(needed, trigger_->from);
  const auto isTooMuch = [this]()
                             HX_REQUIRES(mutex_) { return bytes_ > options_.bytes && pieces_.size() > kFewestPieces; };
  while (pieces_.size() > 1 && (pieces_[1].began <= needed || isTooMuch())) dropPiece();
}

void BlackBox::dropPiece() {
  Piece& oldest = pieces_.front();
  if (isArmed_) {
    for (std::size_t i = 0; i < oldest.chunks.size(); ++i) crashdump::drop();
  }
  bytes_ -= oldest.bytes;
  pieces_.pop_front();
}

void BlackBox::run() {
  while (true) {
    std::optional<Trigger> due;
    bool isLast = false;
    {
      MutexLock lock(mutex_);
      if (!ends_) changed_.wait_for(lock, kLook);
      if (!encoder_.chunk().isEmpty() && Clock::now() - chunkBegan_ >= kChunkAge) closeChunk();
      isLast = ends_;
      if (trigger_ && (isLast || Clock::now() >= trigger_->until)) due = std::exchange(trigger_, std::nullopt);
      if (!due && isLast && options_.savesAtEnd) due = Trigger{"end", {}, {}};
    }
    if (due) {
      try {
        write(due->name);
      } catch (const std::exception& error) {
        if (options_.onFailure) options_.onFailure(error.what());
      }
    }
    if (isLast) return;
  }
}

std::string BlackBox::headOf(double reach) const {
  TextMap about = options_.about;
  about.insert_or_assign("epoch", std::to_string(latest_.epoch));
  about.insert_or_assign("revision", std::to_string(latest_.revision));
  if (reach > 0) about.insert_or_assign("reach", fmt::format("{:.1f} s", reach));
  about.insert_or_assign("asked", fmt::format("{:.1f} s", std::chrono::duration<double>(options_.before).count()));
  std::string head(kMagic);
  writeHeader(head);
  recording::write(head, Metadata{"korvo", about});
  return head;
}

std::filesystem::path BlackBox::save() {
  // What was written before is in it.
  const auto wanted = feed_.latest().revision;
  const auto end = Clock::now() + 1s;
  while (follow_.position().revision < wanted && Clock::now() < end) std::this_thread::sleep_for(1ms);
  return write("saved");
}

/// The chunks as they lie there, and then the same mended: that costs nobody but who waits for the file.
std::filesystem::path BlackBox::write(const std::string& name) {
  const MutexLock writing(writing_);
  std::string head;
  std::vector<Bytes> chunks;
  std::size_t number = 0;
  {
    const MutexLock lock(mutex_);
    closeChunk();
    head = headOf(std::chrono::duration<double>(Clock::now() - pieces_.front().began).count());
    for (const Piece& piece : pieces_) chunks.insert(chunks.end(), piece.chunks.begin(), piece.chunks.end());
    number = ++files_;
  }
  const auto path =
      options_.folder / fmt::format("{}{}-{}-{}.mcap", kPrefix, recording::dateText(), number, plain(name));
  std::filesystem::path raw = path;
  raw += ".raw";
  {
    OutputFile file(raw);
    file.append(head);
    for (const Bytes& chunk : chunks) file.append(*chunk);
  }
  mend(raw, path);
  std::filesystem::remove(raw);
  removeOldFiles();
  if (options_.onFinished) options_.onFinished(path);
  return path;
}

void BlackBox::removeOldFiles() {
  std::error_code ignored;
  std::vector<std::pair<std::filesystem::file_time_type, std::filesystem::path>> files;
  for (const auto& entry : std::filesystem::directory_iterator(options_.folder, ignored)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kPrefix) && name.ends_with(".mcap"))
      files.emplace_back(entry.last_write_time(ignored), entry.path());
  }
  std::ranges::sort(files, std::greater<>());  // The newest one first, which always stays.
  std::uint64_t bytes = 0;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const auto size = std::filesystem::file_size(files[i].second, ignored);
    bytes += ignored ? 0 : size;
    const bool isBeyond =
        (options_.files > 0 && i >= options_.files) || (options_.fileBytes > 0 && i > 0 && bytes > options_.fileBytes);
    if (isBeyond) std::filesystem::remove(files[i].second, ignored);
  }
}

BlackBox::State BlackBox::state() const {
  const MutexLock lock(mutex_);
  return {bytes_, std::chrono::duration<double>(Clock::now() - pieces_.front().began).count(), files_, hasBegun_};
}

}  // namespace HX::recording
