#pragma once

#include "recording/encoder.h"
#include "recording/filewriter.h"

#include <hxerror/mutex.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace HX::recording {

/// Where changes come from: the memory of this process, or of another one.
struct Feed {
  std::function<journal::Follow(journal::Filter, std::function<void(const journal::Change&)>, journal::FollowOptions)>
      follow;
  std::function<journal::Position()> latest;  ///< The place of the latest change.
};

/// What is recorded, and how much of it is kept.
struct RecorderOptions {
  std::filesystem::path file;           ///< Further parts have -2, -3 and so on before their ending.
  std::vector<std::string> keys;        ///< Keys, prefixes, globs; none: all.
  std::vector<std::string> except;      ///< The same, left out.
  std::map<std::string, double> rates;  ///< At most so many changes a second of each key of a pattern.
  std::uint64_t splitBytes = 0;         ///< Begin a part when one has so many; 0: never.
  std::chrono::nanoseconds splitTime{};
  std::uint64_t keepBytes = 0;  ///< Remove the oldest parts beyond; 0: none.
  std::chrono::nanoseconds keepTime{};
  std::uint64_t minFree = std::uint64_t{1} << 30U;  ///< Of the disk; below, recording ends, or:
  bool removesOldest = false;                       ///< parts of this recording are removed first.
  Compression compression = Compression::Zstd;
  bool hasIndex = true;
  TextMap about;  ///< Further entries of the metadata `korvo`.

  /// Bytes that are free where a file is; another answer than the disk's is for tests.
  std::function<std::uint64_t(const std::filesystem::path&)> freeOf = {};
  std::function<void(const std::filesystem::path&)> onFinished = {};  ///< A part is whole. On the writer's thread.
  std::function<void(const std::string&)> onFailure = {};             ///< It has ended by itself. The same.
};

/// What a recorder is at.
struct RecorderState {
  std::filesystem::path file;  ///< The part that is being written.
  std::uint64_t changes = 0;   ///< Told so far, states included.
  std::uint64_t bytes = 0;     ///< Of all parts, removed ones included.
  std::uint64_t gaps = 0;
  std::uint64_t missed = 0;  ///< Changes, as far as they could be counted.
  std::uint64_t keys = 0;
  std::size_t parts = 0;
  bool hasBegun = false;  ///< All that the keys hold is told; from then on there are changes.
  bool isPaused = false;
  bool isCrowded = false;  ///< There are more keys than a file has channels.
  std::string failure;     ///< Why it has ended by itself; empty while it has not.
};

/// Records changes into a file, or into one after another, each of which stands alone and begins with what all keys
/// held.
///
/// What is older than half a second is in the file, which can be read although it has no end yet. A disk that is slower
/// than the changes costs a gap, which the file tells of, and never the memory's writers.
///
/// @par Threads  All functions are safe from any thread. Callbacks of the feed encode, a thread of its own compresses
/// and
///   writes. The mutex is a leaf.
class Recorder {
 public:
  /// Begins at once.
  /// @throws RecordingError when the file is there already or cannot be made; what the feed throws.
  Recorder(RecorderOptions options, Feed feed);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder();

  /// Ends it: what was written to the memory before is in the file, which is then whole.
  /// @throws RecordingError when it could not be written to its end.
  void stop();
  /// Leaves out what happens until `resume`; the file tells of the gap.
  void pause();
  void resume();
  /// Begins the next part.
  void split();
  RecorderState state() const;

 private:
  using Clock = std::chrono::steady_clock;
  /// What the writer does next: a chunk, and before it perhaps a part that ends.
  struct Job {
    OpenChunk chunk;
    std::optional<TextMap> beginsPart;
  };
  struct Part {
    std::filesystem::path path;
    std::uint64_t bytes = 0;
    Clock::time_point ended;
  };
  struct Rate {
    journal::Filter keys;
    std::chrono::nanoseconds period;
  };
  struct Held {  // A change that comes later, for it came too early.
    std::string key;
    journal::Change change;
  };

  void begin();
  // On the feed's thread:
  void onChange(const journal::Change& change);
  void onGap(const journal::Gap& gap);
  bool isTooEarly(const journal::Change& change) HX_REQUIRES(mutex_);
  void add(const journal::Change& change) HX_REQUIRES(mutex_);
  void afterChange() HX_REQUIRES(mutex_);
  // By anybody:
  void closeChunk() HX_REQUIRES(mutex_);
  void beginPart() HX_REQUIRES(mutex_);
  TextMap about() const HX_REQUIRES(mutex_);
  void awaitLatest() const;
  // On the writer's thread:
  void run();
  bool runOnce();
  void tick();
  void tellHeld() HX_REQUIRES(mutex_);
  void write(Job job);
  void finishPart();
  void openPart(const TextMap& about);
  void removeOld();
  void guardSpace();
  bool removeOldest();
  void fail(const std::string& reason);
  std::filesystem::path partPath(std::size_t number) const;

  RecorderOptions options_;  // As given, but for what keeping asks of splitting.
  const Feed feed_;
  std::vector<Rate> rates_;

  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  Encoder encoder_ HX_GUARDED_BY(mutex_);
  std::deque<Job> jobs_ HX_GUARDED_BY(mutex_);
  std::size_t waiting_ HX_GUARDED_BY(mutex_) = 0;  // Bytes in `jobs_`.
  std::optional<TextMap> nextPart_ HX_GUARDED_BY(mutex_);
  Clock::time_point chunkBegan_ HX_GUARDED_BY(mutex_);
  Clock::time_point partBegan_ HX_GUARDED_BY(mutex_);
  journal::Position latest_ HX_GUARDED_BY(mutex_);
  TimePoint statesAt_ HX_GUARDED_BY(mutex_);  // The moment that states are of: the begin of the part, or of a gap.
  std::map<std::string, Clock::time_point, std::less<>> due_ HX_GUARDED_BY(mutex_);
  std::map<std::string, Held, std::less<>> held_ HX_GUARDED_BY(mutex_);
  RecorderState state_ HX_GUARDED_BY(mutex_);
  bool ends_ HX_GUARDED_BY(mutex_) = false;
  bool isClogged_ HX_GUARDED_BY(mutex_) = false;  // Paused because the disk is slow.

  // The writer's own.
  std::unique_ptr<FileWriter> file_;
  Compressor compressor_;
  std::deque<Part> finished_;
  std::size_t part_ = 0;
  std::uint64_t finishedBytes_ = 0;
  Clock::time_point synced_{};

  std::atomic<bool> follows_ = false;     // `follow_` may be used.
  std::atomic<bool> wantsPause_ = false;  // By the callback that runs, once it holds no lock.
  journal::Follow follow_;
  std::thread writer_;
};

}  // namespace HX::recording
