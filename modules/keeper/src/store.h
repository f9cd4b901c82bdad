#pragma once

#include <hxjournal/change.h>
#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;

namespace HX::keeper {

/// What is kept of a key.
struct Row {
  HXValue value;
  std::string description;
  journal::TimePoint time{};
};
using Rows = std::map<std::string, Row, std::less<>>;

/// The store cannot be used, or did not take what it was given; it is as it was.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Keys on a disk: a database in a folder that belongs to one process at a time.
///
/// What `commit` has returned for is there after a loss of power. Each row has a checksum over all of it: one whose
/// bits have flipped is left out and never read as a value. A database that is damaged is moved aside, with what
/// belongs to it, and what can be read of it is taken over.
///
/// @par Threads  One at a time.
class Store {
 public:
  static constexpr const char* kFile = "kept.db";
  static constexpr const char* kLock = "kept.lock";

  /// Opens or makes the store.
  /// @param folder  Made when it is not there.
  /// @throws StoreError when another process has it, when it is another program's, and when the disk refuses.
  explicit Store(const std::filesystem::path& folder);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store();

  /// All whole rows.
  Rows read();
  /// What was wrong with what was there, each one line for the log; empty for nothing. Grows with `read`.
  const std::vector<std::string>& complaints() const { return complaints_; }

  /// The patterns that were written last; none at first.
  std::vector<std::string> patterns();

  /// What becomes of a key: its row, or none for a key that is not kept any more.
  using Changes = std::vector<std::pair<std::string, std::optional<Row>>>;
  /// Writes all or nothing, and returns once it is on the disk.
  /// @param patterns  In the place of those that are there; null leaves them.
  /// @throws StoreError when nothing was written.
  void commit(const Changes& changes, const std::vector<std::string>* patterns = nullptr);

 private:
  class Lock {
   public:
    explicit Lock(const std::filesystem::path& folder);
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock();

   private:
    int file_ = -1;
  };
  struct Closer {
    void operator()(sqlite3* database) const;
  };
  using Database = std::unique_ptr<sqlite3, Closer>;

  void open();
  bool prepare(bool isNew);
  Rows salvage(std::vector<std::string>& patterns);

  const std::filesystem::path file_;
  const Lock lock_;
  Database database_;
  std::vector<std::string> complaints_;
};

}  // namespace HX::keeper
