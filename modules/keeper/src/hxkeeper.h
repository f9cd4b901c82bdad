#pragma once

#include "store.h"

#include <hxcommon/hxmodule.h>
#include <hxjournal/filter.h>
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
#include <string_view>
#include <thread>
#include <vector>

namespace HX {

/// Keys that survive: what is stored under the wanted names is written to a disk, and is there again when the module
/// starts anew, as data with its type, description and time. The setting `keep` says which, `folder` where; patterns
/// that are added by `keep` are remembered in the store, and count whenever it is opened.
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
  /// Keeps what the patterns name, from now on and whenever this store is opened. What the store has of them and the
  /// memory has not is brought back. Returns once what they name is on the disk.
  /// @throws HXError with the reason when the disk refuses it; they are kept all the same, and written once it does
  /// not.
  void keep(const std::vector<std::string>& patterns);
  /// Keeps what the patterns name no longer, and takes it off the disk, unless another pattern names it. The memory
  /// stays as it is.
  /// @throws HXError for a pattern that nothing is kept by, and for one of the settings; then nothing is forgotten.
  void forget(const std::vector<std::string>& patterns);
  /// The keys that are kept, sorted.
  std::vector<std::string> kept();
  /// {folder, keep: the patterns, of which chosen: those that were added by `keep`, keys: how many, unwritten: how many
  /// of them are not on the disk as they are, failure: why the disk refuses, empty when it does not, complaints: what
  /// was wrong with the store when it was opened}.
  HXValue state();

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::uint8_t kDataKind = 1;  ///< What the memory calls data.

  /// What the disk is to get.
  struct Unwritten {
    std::set<std::string> keys;
    std::optional<std::vector<std::string>> patterns;
    std::uint64_t upTo = 0;  ///< As `noted_` counts.
  };

  void readSettings();
  void bindMethods();
  bool isFollowedTo(std::uint64_t revision);
  void followChanges();
  void flushUntil(Clock::time_point end);
  bool openStore();
  bool isStoreOpen();
  keeper::Rows readStore();
  void logComplaints();
  void restore(const keeper::Rows& rows);
  // By the writer:
  void run(const std::stop_token& stop);
  bool requireStore();
  bool write(const Unwritten& unwritten);
  void report(const std::string& failure);
  // On the event loop:
  void onChange(const journal::Change& change);
  void onSnapshotEnd();
  std::string descriptionOf(std::string_view key);
  // With `mutex_` held:
  void noteValue(const journal::Change& change);
  void noteDescription(const std::string& key, const std::string& text);
  void noteRemoval(const std::string& key);
  void mark(const std::string& key);
  std::vector<std::string> patterns() const;
  bool isWanted(std::string_view key) const;
  void addChosen(const std::vector<std::string>& patterns);
  void noteChosen();
  void requireForgettable(const std::string& pattern) const;
  void forgetKeys(const journal::Filter& named);
  std::string patternFor(const std::string& key) const;

  // As the settings say.
  std::vector<std::string> given_;
  std::filesystem::path folder_;
  std::chrono::nanoseconds window_{};

  std::mutex followMutex_;  // Guards `follow_`. Outside `mutex_`, which the callbacks take that its end waits for.
  std::mutex storeMutex_;   // Guards `store_`. Outside `mutex_`.
  std::mutex mutex_;        // Guards all down to `complaints_`.
  std::condition_variable_any changed_;
  std::vector<std::string> chosen_;          // Beside those of the settings.
  bool isChosenNew_ = false;                 // Not on the disk yet.
  journal::Filter wanted_;                   // What all of them name; means nothing when there are none.
  keeper::Rows rows_;                        // As they shall be on the disk.
  std::set<std::string, std::less<>> left_;  // On the disk, and named by no pattern.
  std::set<std::string> dirty_;              // Whose rows are not there yet.
  std::set<std::string, std::less<>> seen_;  // By the snapshot that is being told.
  bool isSnapshot_ = true;
  bool isUrgent_ = false;      // Somebody waits for the disk.
  std::uint64_t noted_ = 0;    // Counts changes of `rows_`.
  std::uint64_t durable_ = 0;  // The count that is on the disk.
  std::uint64_t refusals_ = 0;
  std::string failure_;  // What the disk said last; empty when it took all.
  std::vector<std::string> complaints_;

  std::optional<keeper::Store> store_;
  std::jthread writer_;
  journal::Follow follow_;
};

}  // namespace HX
