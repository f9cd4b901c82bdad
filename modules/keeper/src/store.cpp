#include "store.h"

#include "statement.h"

#include <hxvalue/msgpack.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

#include <boost/crc.hpp>
#include <fmt/format.h>

namespace HX::keeper {
namespace {

namespace fs = std::filesystem;

// "HXkp", so that a database of another program is told from one of ours.
constexpr std::int64_t kApplication = 0x48586b70;

constexpr const char* kSelect = "SELECT key, value, description, time, crc FROM kept ORDER BY rowid";
constexpr const char* kSelectBackwards = "SELECT key, value, description, time, crc FROM kept ORDER BY rowid DESC";

std::int64_t checksum(std::span<const std::byte> key, std::span<const std::byte> value,
                      std::span<const std::byte> description, std::int64_t time) {
  boost::crc_32_type crc;
  // With their sizes, so that no byte can move from one to the next.
  for (const auto part : {key, value, description}) {
    const std::uint64_t size = part.size();
    crc.process_bytes(&size, sizeof size);
    crc.process_bytes(part.data(), part.size());
  }
  crc.process_bytes(&time, sizeof time);
  return crc.checksum();
}

/// Whether the row that the statement stands on is whole; then it is added.
bool addRow(const Statement& row, Rows& rows) {
  const std::int64_t time = row.number(3);
  if (checksum(row.bytes(0), row.bytes(1), row.bytes(2), time) != row.number(4)) return false;
  try {
    rows.insert_or_assign(
        row.text(0), Row{fromMsgpack(row.bytes(1)), row.text(2), journal::TimePoint(std::chrono::nanoseconds(time))});
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

/// Adds the whole rows up to the end, or to where the database is damaged. @return How many were not whole.
std::size_t addRows(sqlite3* database, const char* select, Rows& rows, bool& reachedEnd) {
  Statement statement(database, select);
  std::size_t broken = 0;
  int result = SQLITE_ROW;
  while ((result = statement.step()) == SQLITE_ROW) {
    if (!addRow(statement, rows)) ++broken;
  }
  reachedEnd = result == SQLITE_DONE;
  return broken;
}

/// Adds those that are whole.
void addPatterns(sqlite3* database, std::vector<std::string>& patterns) {
  Statement statement(database, "SELECT pattern, crc FROM patterns ORDER BY rowid");
  while (statement.step() == SQLITE_ROW) {
    if (checksum(statement.bytes(0), {}, {}, 0) == statement.number(1)) patterns.push_back(statement.text(0));
  }
}

int execute(sqlite3* database, const char* sql) { return sqlite3_exec(database, sql, nullptr, nullptr, nullptr); }

std::int64_t numberOf(sqlite3* database, const char* sql) {
  Statement statement(database, sql);
  return statement.step() == SQLITE_ROW ? statement.number(0) : -1;
}

std::string textOf(sqlite3* database, const char* sql) {
  Statement statement(database, sql);
  return statement.step() == SQLITE_ROW ? statement.text(0) : std::string();
}

bool isDamage(int result) { return result == SQLITE_CORRUPT || result == SQLITE_NOTADB; }

}  // namespace

Store::Lock::Lock(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw StoreError(fmt::format("{}: {}", folder.string(), error.message()));
  const fs::path path = folder / kLock;
  file_ = ::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (file_ < 0) throw StoreError(fmt::format("{}: {}", path.string(), std::strerror(errno)));
  if (::flock(file_, LOCK_EX | LOCK_NB) == 0) return;
  const int reason = errno;
  ::close(file_);
  throw StoreError(reason == EWOULDBLOCK ? fmt::format("{}: another broker keeps its keys there", folder.string())
                                         : fmt::format("{}: {}", path.string(), std::strerror(reason)));
}

Store::Lock::~Lock() { ::close(file_); }

void Store::Closer::operator()(sqlite3* database) const { sqlite3_close(database); }

Store::Store(const fs::path& folder) : file_(folder / kFile), lock_(folder) {
  std::error_code ignored;
  const bool wasThere = fs::exists(file_, ignored);
  const bool isEmpty = wasThere && fs::file_size(file_, ignored) == 0;
  open();
  if (!isEmpty && prepare(!wasThere)) return;
  // An empty file would be a good database without a key; it has been a store, and something has cut it.
  std::vector<std::string> patterns;
  const Rows good = salvage(patterns);
  Changes changes;
  for (const auto& [key, row] : good) changes.emplace_back(key, row);
  commit(changes, &patterns);
}

Store::~Store() = default;

void Store::open() {
  // The database would make it readable for everybody, and its log after it; and of one that it may only read it would
  // say no more than that input or output has failed.
  const int made = ::open(file_.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (made < 0) throw StoreError(fmt::format("{}: {}", file_.string(), std::strerror(errno)));
  ::close(made);
  sqlite3* opened = nullptr;
  const int result = sqlite3_open_v2(file_.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  database_.reset(opened);
  if (result != SQLITE_OK) throw StoreError(fmt::format("{}: {}", file_.string(), sqlite3_errstr(result)));
}

/// @return False when what is there is damaged.
bool Store::prepare(bool isNew) {
  sqlite3* const database = database_.get();
  const auto require = [&](int result) {
    if (result != SQLITE_OK) throw StoreError(fmt::format("{}: {}", file_.string(), sqlite3_errmsg(database)));
  };
  // Before the first access: then no other connection gets in, and none is looked for at each commit.
  require(execute(database, "PRAGMA locking_mode=EXCLUSIVE"));
  const int readable = execute(database, "SELECT count(*) FROM sqlite_master");
  if (isDamage(readable)) return false;
  require(readable);
  const bool isOurs = numberOf(database, "PRAGMA application_id") == kApplication;
  if (!isNew && !isOurs && numberOf(database, "SELECT count(*) FROM sqlite_master") > 0) {
    throw StoreError(fmt::format("{}: a database of another program, which is left as it is", file_.string()));
  }
  if (isOurs && textOf(database, "PRAGMA quick_check(1)") != "ok") return false;
  require(execute(database, "PRAGMA journal_mode=WAL"));
  // Each commit is on the disk when it returns. Less would lose minutes with the power.
  require(execute(database, "PRAGMA synchronous=FULL"));
  const std::string make = fmt::format(
      "BEGIN IMMEDIATE; PRAGMA application_id={};"
      "CREATE TABLE IF NOT EXISTS kept(key BLOB PRIMARY KEY NOT NULL, value BLOB NOT NULL, description BLOB NOT NULL,"
      " time INTEGER NOT NULL, crc INTEGER NOT NULL);"
      "CREATE TABLE IF NOT EXISTS patterns(pattern BLOB PRIMARY KEY NOT NULL, crc INTEGER NOT NULL); COMMIT",
      kApplication);
  const int made = execute(database, make.c_str());
  if (made != SQLITE_OK) execute(database, "ROLLBACK");
  require(made);
  return true;
}

Rows Store::salvage(std::vector<std::string>& patterns) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const fs::path aside =
      fmt::format("{}.damaged-{}", file_.string(), std::chrono::floor<std::chrono::microseconds>(now).count());
  database_.reset();
  for (const char* part : {"", "-wal", "-shm"}) {
    std::error_code error;
    fs::rename(file_.string() + part, aside.string() + part, error);
    if (error && fs::exists(file_.string() + part)) {
      throw StoreError(fmt::format("{} is damaged, and cannot be moved aside: {}", file_.string(), error.message()));
    }
  }
  Rows rows;
  std::size_t broken = 0;
  {
    sqlite3* opened = nullptr;
    sqlite3_open_v2(aside.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
    const Database damaged(opened);
    bool reachedEnd = false;
    broken = addRows(opened, kSelect, rows, reachedEnd);
    // What lies behind the damage, as far as it can be reached from there.
    if (!reachedEnd) addRows(opened, kSelectBackwards, rows, reachedEnd);
    addPatterns(opened, patterns);
  }
  complaints_.push_back(fmt::format("{} was damaged and is now {}; {} keys of it are taken over{}", file_.string(),
                                    aside.string(), rows.size(),
                                    broken > 0 ? fmt::format(", {} have wrong checksums", broken) : ""));
  open();
  if (!prepare(true)) throw StoreError(fmt::format("{}: cannot be made anew", file_.string()));
  return rows;
}

Rows Store::read() {
  Rows rows;
  bool reachedEnd = false;
  const std::size_t broken = addRows(database_.get(), kSelect, rows, reachedEnd);
  if (broken > 0)
    complaints_.push_back(fmt::format("{}: {} keys have wrong checksums and are left out", file_.string(), broken));
  if (!reachedEnd) complaints_.push_back(fmt::format("{}: {}", file_.string(), sqlite3_errmsg(database_.get())));
  return rows;
}

std::vector<std::string> Store::patterns() {
  std::vector<std::string> all;
  addPatterns(database_.get(), all);
  return all;
}

void Store::commit(const Changes& changes, const std::vector<std::string>* patterns) {
  sqlite3* const database = database_.get();
  const auto require = [&](int result) {
    if (result == SQLITE_OK || result == SQLITE_DONE) return;
    const std::string reason = sqlite3_errmsg(database);
    execute(database, "ROLLBACK");
    throw StoreError(fmt::format("{}: {}", file_.string(), reason));
  };
  require(execute(database, "BEGIN IMMEDIATE"));
  Statement store(
      database,
      "INSERT INTO kept(key, value, description, time, crc) VALUES(?, ?, ?, ?, ?) ON CONFLICT(key) DO UPDATE"
      " SET value=excluded.value, description=excluded.description, time=excluded.time, crc=excluded.crc");
  Statement remove(database, "DELETE FROM kept WHERE key=?");
  for (const auto& [key, row] : changes) {
    Statement& statement = row ? store : remove;
    std::vector<std::byte> value;
    statement.bind(1, std::string_view(key));
    if (row) {
      value = toMsgpack(row->value);
      const std::string_view description = row->description;
      const std::int64_t time = row->time.time_since_epoch().count();
      statement.bind(2, value);
      statement.bind(3, description);
      statement.bind(4, time);
      statement.bind(5, checksum(std::as_bytes(std::span(key)), value, std::as_bytes(std::span(description)), time));
    }
    const int result = statement.step();
    statement.reset();
    require(result);
  }
  if (patterns) {
    require(execute(database, "DELETE FROM patterns"));
    Statement add(database, "INSERT OR IGNORE INTO patterns(pattern, crc) VALUES(?, ?)");
    for (const std::string& pattern : *patterns) {
      add.bind(1, std::string_view(pattern));
      add.bind(2, checksum(std::as_bytes(std::span(pattern)), {}, {}, 0));
      const int result = add.step();
      add.reset();
      require(result);
    }
  }
  require(execute(database, "COMMIT"));
}

}  // namespace HX::keeper
