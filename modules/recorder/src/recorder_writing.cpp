#include "recorder.h"

#include <libmw/clock.h>

#include <sys/statvfs.h>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

using namespace std::chrono_literals;

constexpr auto kChunkTime = 400ms;  // So that half a second is kept on a busy machine too.
constexpr auto kTick = 100ms;
constexpr auto kSyncEvery = 500ms;
constexpr std::size_t kFewWaiting = std::size_t{16} << 20U;  // Then the disk has caught up.

std::uint64_t freeOf(const std::filesystem::path& path) {
  struct statvfs disk {};
  if (::statvfs(path.c_str(), &disk) != 0) return ~std::uint64_t{0};
  return std::uint64_t{disk.f_bavail} * disk.f_frsize;
}

}  // namespace

void Recorder::run() {
  try {
    while (runOnce()) {
    }
    if (file_) finishPart();
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

/// @return False when all is written.
bool Recorder::runOnce() {
  std::optional<Job> job;
  bool goesOn = false;
  {
    MutexLock lock(mutex_);
    if (jobs_.empty() && !ends_) changed_.wait_for(lock, kTick);
    if (jobs_.empty()) {
      if (ends_) return false;
    } else {
      job = std::move(jobs_.front());
      jobs_.pop_front();
      waiting_ -= job->chunk.records.size();
      goesOn = waiting_ < kFewWaiting && std::exchange(isClogged_, false) && !state_.isPaused;
    }
  }
  if (goesOn) follow_.resume();
  if (job) write(std::move(*job));
  tick();
  return true;
}

void Recorder::tick() {
  const auto now = Clock::now();
  {
    const MutexLock lock(mutex_);
    if (!ends_) {
      tellHeld();
      const bool isLong = options_.splitTime > 0ns && now - partBegan_ >= options_.splitTime;
      const bool isLarge = options_.splitBytes > 0 && file_ && file_->size() >= options_.splitBytes && !nextPart_;
      if ((isLong || isLarge) && jobs_.empty()) {
        beginPart();
        closeChunk();
      } else if (now - chunkBegan_ >= kChunkTime) {
        closeChunk();
      }
    }
  }
  if (now - synced_ < kSyncEvery) return;
  synced_ = now;
  file_->sync();
  removeOld();
  guardSpace();
}

void Recorder::tellHeld() {
  const auto now = Clock::now();
  for (auto one = held_.begin(); one != held_.end();) {
    const auto due = due_.find(one->first);
    if (!ends_ && due != due_.end() && now < due->second) {
      ++one;
      continue;
    }
    add(one->second.change);
    one = held_.erase(one);
  }
}

void Recorder::write(Job job) {
  if (job.beginsPart) {
    finishPart();
    openPart(*job.beginsPart);
  }
  if (!job.chunk.isEmpty()) file_->add(seal(std::move(job.chunk), compressor_));
  const MutexLock lock(mutex_);
  state_.bytes = finishedBytes_ + file_->size();
}

void Recorder::openPart(const TextMap& about) {
  TextMap all = about;
  all.insert_or_assign("part", std::to_string(++part_));
  file_ = std::make_unique<FileWriter>(partPath(part_), all, options_.hasIndex);
  const MutexLock lock(mutex_);
  state_.file = file_->path();
  state_.parts = part_;
  state_.bytes = finishedBytes_ + file_->size();
}

void Recorder::finishPart() {
  file_->finish();
  const std::filesystem::path path = file_->path();
  finishedBytes_ += file_->size();
  finished_.push_back({path, file_->size(), Clock::now()});
  file_.reset();
  {
    const MutexLock lock(mutex_);
    state_.bytes = finishedBytes_;
  }
  if (options_.onFinished) options_.onFinished(path);
}

bool Recorder::removeOldest() {
  if (finished_.empty()) return false;
  std::error_code ignored;  // Somebody may have removed it already.
  std::filesystem::remove(finished_.front().path, ignored);
  finished_.pop_front();
  return true;
}

void Recorder::removeOld() {
  const auto kept = [this] {
    std::uint64_t bytes = file_->size();
    for (const Part& part : finished_) bytes += part.bytes;
    return bytes;
  };
  if (options_.keepBytes > 0) {
    while (kept() > options_.keepBytes && removeOldest()) {
    }
  }
  if (options_.keepTime > 0ns) {
    const auto isOld = [&] { return !finished_.empty() && Clock::now() - finished_.front().ended > options_.keepTime; };
    while (isOld()) removeOldest();
  }
}

void Recorder::guardSpace() {
  const auto free = [this] { return options_.freeOf ? options_.freeOf(file_->path()) : freeOf(file_->path()); };
  if (options_.minFree == 0) return;
  while (free() < options_.minFree && options_.removesOldest && removeOldest()) {
  }
  if (const auto left = free(); left < options_.minFree) {
    const std::string reason = fmt::format("the disk has only {} MiB left", left >> 20U);
    finishPart();
    throw RecordingError(reason);
  }
}

void Recorder::fail(const std::string& reason) {
  // What was written so far is in the file, which lacks its end where that could not be written.
  file_.reset();
  if (follows_) follow_.pause();
  {
    const MutexLock lock(mutex_);
    state_.failure = reason;
    jobs_.clear();
    waiting_ = 0;
    isClogged_ = false;
  }
  if (options_.onFailure) options_.onFailure(reason);
}

}  // namespace HX::recording
