#pragma once

#include "recorder.h"

#include <deque>
#include <memory>
#include <set>

namespace HX::recording {

struct BlackBoxOptions {
  std::filesystem::path folder;  ///< Made when it is not there.
  std::chrono::nanoseconds before{};
  std::chrono::nanoseconds after{};
  std::vector<std::string> when;  ///< Events whose raise has a file written: keys, prefixes, globs.
  std::vector<std::string> keys;  ///< What is kept; none: all.
  /// At most so much memory for what is kept. It is more where what all keys hold takes a quarter of it: then that is
  /// kept two or three times, for something has to lie between.
  std::uint64_t bytes = std::uint64_t{64} << 20U;
  std::size_t files = 8;        ///< So many files are left; the oldest ones go. 0: all.
  std::uint64_t fileBytes = 0;  ///< So many bytes of files are left, one file at least. 0: all.
  bool savesAtEnd = false;
  TextMap about;  ///< Further entries of the metadata `korvo`.

  std::function<void(const std::filesystem::path&)> onFinished = {};  ///< A file is whole. On the box's own thread.
  std::function<void(const std::string&)> onFailure = {};             ///< One could not be written. The same.
};

/// Keeps what happened in the last moments, all the time, as finished compressed chunks, and writes it to a file when
/// one of the events is raised, when somebody asks, and when the process dies of a signal.
///
/// What is kept is pieces, each of which begins with what all keys held, so that the oldest can go as a whole: what is
/// kept reaches back as long as was asked for, and half of that more at most. Where the memory for it is used up
/// before, it reaches less far, and the file says how far. Events that are raised close to each other share a file, in
/// which each has its time before and after.
///
/// @par Threads  All functions are safe from any thread. The mutex is a leaf.
class BlackBox {
 public:
  /// @throws RecordingError when the folder cannot be made; what the feed throws.
  BlackBox(BlackBoxOptions options, Feed feed);
  BlackBox(const BlackBox&) = delete;
  BlackBox& operator=(const BlackBox&) = delete;
  ~BlackBox();

  /// Writes what is kept now.
  /// @return The file.
  /// @throws RecordingError when it cannot be written.
  std::filesystem::path save();

  struct State {
    std::uint64_t bytes = 0;  ///< That are kept.
    double seconds = 0;       ///< How far they reach back.
    std::size_t files = 0;    ///< Written so far.
    bool hasBegun = false;    ///< All that the keys hold is told; from then on there are changes.
  };
  State state() const;

 private:
  using Clock = std::chrono::steady_clock;
  using Bytes = std::shared_ptr<const std::string>;
  struct Piece {
    Clock::time_point began;
    std::vector<Bytes> chunks;
    std::uint64_t bytes = 0;
    std::uint64_t states = 0;  // Of these, what all keys held when it began.
  };
  struct Trigger {
    std::string name;
    Clock::time_point from;   // What has to be kept for it.
    Clock::time_point until;  // When it is written.
  };

  void onChange(const journal::Change& change);
  void closeChunk() HX_REQUIRES(mutex_);
  void keepChunk() HX_REQUIRES(mutex_);
  bool isPieceFull() const HX_REQUIRES(mutex_);
  void beginPiece() HX_REQUIRES(mutex_);
  void dropOld() HX_REQUIRES(mutex_);
  void dropPiece() HX_REQUIRES(mutex_);
  void run();
  std::string headOf(double reach) const HX_REQUIRES(mutex_);
  std::filesystem::path write(const std::string& name);
  void removeOldFiles();

  const BlackBoxOptions options_;
  const Feed feed_;
  const journal::Filter when_;

  mutable Mutex mutex_;
  std::condition_variable_any changed_;
  Encoder encoder_ HX_GUARDED_BY(mutex_);
  Compressor compressor_ HX_GUARDED_BY(mutex_){Compression::Zstd};
  std::deque<Piece> pieces_ HX_GUARDED_BY(mutex_);
  std::uint64_t bytes_ HX_GUARDED_BY(mutex_) = 0;
  Clock::time_point chunkBegan_ HX_GUARDED_BY(mutex_);
  journal::Position latest_ HX_GUARDED_BY(mutex_);
  TimePoint statesAt_ HX_GUARDED_BY(mutex_);  // The moment that states are of.
  std::optional<Trigger> trigger_ HX_GUARDED_BY(mutex_);
  bool ends_ HX_GUARDED_BY(mutex_) = false;
  std::size_t files_ HX_GUARDED_BY(mutex_) = 0;
  bool hasBegun_ HX_GUARDED_BY(mutex_) = false;

  Mutex writing_;  // Held while a file is written. Taken before `mutex_`.
  bool isArmed_ = false;
  journal::Follow follow_;
  std::thread thread_;
};

}  // namespace HX::recording
