#pragma once

#include "store.h"

#include <hxcommon/hxmodule.h>
#include <hxjournal/follow.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace HX {

/// Keys that survive: what is stored under the wanted names is written to a disk, and is there again when the module
/// starts anew, as data with its type and description. The setting `keep` says which, `folder` where.
///
/// It follows the changes, and writes the last value of each changed key, all in one transaction, once the setting
/// `window` has passed since the first of them. So after a crash or a loss of power there is all that was written
/// before the last window but one, and all that `flush` has returned for.
///
/// A disk that refuses never stops the memory: one line in the log says why, what is wanted stays in this process, and
/// is written once the disk takes it. When the store cannot be opened at the start, keys that the memory has by the
/// time it can win over those of the store.
///
/// @par Threads  All methods are safe from any thread.
class HXKeeper : public HXModule {
 public:
  HXKeeper(const std::shared_ptr<HXBroker>& broker, const std::string& name);
  ~HXKeeper() override;

  void init() override;
  void exit() override;

  /// Returns once all that was written before is on the disk.
  /// @throws HXError with the reason when the disk refuses it.
  void flush();
  /// The keys that are kept, sorted.
  std::vector<std::string> kept();
  /// {folder, keep: the patterns, keys: how many, failure: why the disk refuses, empty when it does not}.
  HXValue state();

 private:
  using Clock = std::chrono::steady_clock;

  void bindMethods();
  void flushUntil(Clock::time_point end);
  // By the writer and by `init`:
  bool openStore();
  void restore(const keeper::Rows& rows);
  void run(const std::stop_token& stop);
  bool write(const std::set<std::string>& keys, std::uint64_t upTo);
  void report(const std::string& failure);
  // On the event loop:
  void followChanges();
  void onChange(const journal::Change& change);
  void onSnapshotEnd();
  std::string descriptionOf(std::string_view key);
  // With `mutex_` held:
  void noteValue(const journal::Change& change);
  void noteDescription(const std::string& key, const std::string& text);
  void noteRemoval(const std::string& key);
  void mark(const std::string& key);

  // As the settings say.
  std::vector<std::string> patterns_;
  std::filesystem::path folder_;
  std::chrono::nanoseconds window_{};

  std::mutex mutex_;  // Guards all down to `failure_`.
  std::condition_variable_any changed_;
  keeper::Rows rows_;                        // As they shall be on the disk.
  std::set<std::string> dirty_;              // Whose rows are not there yet.
  std::set<std::string, std::less<>> seen_;  // By the snapshot that is being told.
  bool isSnapshot_ = true;
  bool isUrgent_ = false;      // Somebody waits for the disk.
  std::uint64_t noted_ = 0;    // Counts changes of `rows_`.
  std::uint64_t durable_ = 0;  // The count that is on the disk.
  std::uint64_t refusals_ = 0;
  std::string failure_;  // What the disk said last; empty when it took all.

  std::optional<keeper::Store> store_;  // Of the writer, once it runs.
  std::jthread writer_;
  journal::Follow follow_;
};

}  // namespace HX
