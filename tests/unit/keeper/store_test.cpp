#include "store.h"

#include "expect_error.h"
#include "statement.h"
#include "temporary_folder.h"
#include "uncertain_disk.h"

#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <sys/fsuid.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::keeper {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// Permissions hold for this thread meanwhile, also where the tests run as root.
class AsNobody {
 public:
  AsNobody() { ::setfsuid(::geteuid() == 0 ? 65534 : ::geteuid()); }
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;
  ~AsNobody() { ::setfsuid(::geteuid()); }
};

class KeptStore : public testing::Test {
 protected:
  static Row row(HXValue value) {
    return {std::move(value), "what it is", journal::TimePoint(std::chrono::nanoseconds(1234567))};
  }
  static Store::Changes changes(const std::vector<std::pair<std::string, HXValue>>& values) {
    Store::Changes all;
    for (const auto& [key, value] : values) all.emplace_back(key, row(value));
    return all;
  }
  fs::path file() const { return folder.path() / Store::kFile; }
  static std::string contentOf(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
  }
  static void write(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }
  std::string failure() const {
    return errorOf([&] { const Store store(folder.path()); });
  }

  const kit::TemporaryFolder folder;
};

TEST_F(KeptStore, HasEveryTypeOfValueAgain) {
  const HXValue values[] = {true,
                            1,
                            std::int64_t{1},
                            1.5F,
                            1.5,
                            "text",
                            HXValue(HXValue::Binary(3)),
                            HXValue::list({1, HXValue()}),
                            HXValue::map({{"a", 1.0}})};
  Store::Changes all;
  for (const HXValue& value : values) all.emplace_back("Key/" + std::to_string(all.size()), row(value));
  { Store(folder.path()).commit(all); }
  Store store(folder.path());
  const Rows rows = store.read();
  ASSERT_EQ(rows.size(), all.size());
  for (const auto& [key, kept] : all) {
    EXPECT_EQ(rows.at(key).value, kept->value);
    EXPECT_EQ(rows.at(key).description, kept->description);
    EXPECT_EQ(rows.at(key).time, kept->time);
  }
  store.commit({{"Key/0", std::nullopt}, {"never there", std::nullopt}});
  EXPECT_EQ(store.read().size(), all.size() - 1);
  EXPECT_THAT(store.complaints(), IsEmpty());
}

TEST_F(KeptStore, IsOneProcesssAlone) {
  const Store store(folder.path());
  EXPECT_EQ(failure(), folder.path().string() + ": another broker keeps its keys there");
}

TEST_F(KeptStore, LeavesTheDatabaseOfAnotherProgramAsItIs) {
  sqlite3* other = nullptr;
  sqlite3_open(file().c_str(), &other);
  sqlite3_exec(other, "CREATE TABLE theirs(x)", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  const std::string before = contentOf(file());
  EXPECT_THAT(failure(), HasSubstr("a database of another program"));
  EXPECT_EQ(contentOf(file()), before);
}

TEST_F(KeptStore, NamesAFolderThatCannotBe) {
  write(folder.path() / "file", "");
  EXPECT_THAT(errorOf([&] { const Store store(folder.path() / "file"); }), HasSubstr("/file"));
}

TEST_F(KeptStore, NamesWhatItMayNotWriteAndLeavesItAsItIs) {
  Store(folder.path()).commit(changes({{"a", 1}}));
  const fs::path lock = folder.path() / Store::kLock;
  const auto permit = [&](unsigned folderMode, unsigned lockMode, unsigned fileMode) {
    fs::permissions(folder.path(), fs::perms(folderMode));
    fs::permissions(lock, fs::perms(lockMode));
    fs::permissions(file(), fs::perms(fileMode));
  };
  const auto failureOfOthers = [&] {
    const AsNobody nobody;
    return failure();
  };
  permit(0777, 0444, 0666);
  EXPECT_EQ(failureOfOthers(), lock.string() + ": Permission denied");
  permit(0777, 0666, 0444);
  EXPECT_EQ(failureOfOthers(), file().string() + ": Permission denied");
  permit(0555, 0666, 0666);
  EXPECT_THAT(failureOfOthers(), HasSubstr(file().string() + ": "));
  permit(0777, 0666, 0666);
  EXPECT_EQ(Store(folder.path()).read().at("a").value, HXValue(1));
}

TEST_F(KeptStore, MovesWhatIsNoDatabaseAside) {
  for (const std::string& content : {std::string(), std::string("once upon a time"), std::string(5000, 'x')}) {
    fs::remove(file());
    write(file(), content);
    Store store(folder.path());
    ASSERT_THAT(store.complaints(), SizeIs(1)) << content;
    EXPECT_THAT(store.complaints().front(), HasSubstr("was damaged and is now"));
    store.commit(changes({{"a", 1}}));
    EXPECT_THAT(store.read(), SizeIs(1));
  }
}

TEST_F(KeptStore, NeverReadsFlippedBitsAsAValue) {
  Store::Changes all;
  for (int i = 0; i < 300; ++i) all.emplace_back("Config/Key" + std::to_string(i), row(i * 1.5));
  { Store(folder.path()).commit(all); }
  const std::string good = contentOf(file());
  std::mt19937 random(1);
  std::size_t noticed = 0;
  for (int round = 0; round < 200; ++round) {
    const kit::TemporaryFolder other;
    std::string bad = good;
    const std::size_t bit = random() % (bad.size() * 8);
    bad[bit / 8] = static_cast<char>(static_cast<unsigned char>(bad[bit / 8]) ^ (1U << (bit % 8)));
    write(other.path() / Store::kFile, bad);
    try {
      Store store(other.path());
      const Rows rows = store.read();
      for (const auto& [key, read] : rows) {
        const auto index = std::stoi(key.substr(std::string("Config/Key").size()));
        ASSERT_EQ(read.value, HXValue(index * 1.5)) << "bit " << bit;
      }
      if (!store.complaints().empty()) ++noticed;
    } catch (const StoreError&) {
      ++noticed;
    }
  }
  EXPECT_GT(noticed, 50U);
}

TEST_F(KeptStore, HasTheLastWholeCommitWhereverItsLogIsCut) {
  std::string database;
  std::string log;
  {
    Store store(folder.path());
    for (int i = 1; i <= 3; ++i) store.commit(changes({{"a", i}, {"b", i}, {"c", std::string(3000, 'c')}}));
    database = contentOf(file());
    log = contentOf(file().string() + "-wal");
  }
  int last = 0;
  for (std::size_t cut = 0; cut <= log.size(); cut += 211) {
    const kit::TemporaryFolder other;
    write(other.path() / Store::kFile, database);
    write(other.path() / (std::string(Store::kFile) + "-wal"), log.substr(0, cut));
    if (database.empty() && cut == 0) continue;
    Store store(other.path());
    const Rows rows = store.read();
    const int found = rows.empty() ? 0 : rows.at("a").value.asInt();
    EXPECT_TRUE(rows.empty() || rows.at("b").value == HXValue(found)) << "cut at " << cut;
    EXPECT_GE(found, last) << "more of the log is never less of the store";
    last = found;
  }
  EXPECT_GE(last, 2);
}

/// What was found after a loss of power, in which three keys are always written together.
int numberIn(const fs::path& left) {
  Store store(left);
  const Rows rows = store.read();
  EXPECT_THAT(store.complaints(), IsEmpty());
  if (rows.empty()) return 0;
  for (const char* key : {"b", "c"}) EXPECT_EQ(rows.at(key).value[0], rows.at("a").value[0]) << "half a commit";
  return rows.at("a").value[0].asInt();
}

TEST_F(KeptStore, HasAllThatWasCommittedWhereverThePowerFails) {
  std::mt19937 random(1);
  int committed = 0;
  std::vector<std::pair<int, std::unique_ptr<kit::TemporaryFolder>>> failures;
  {
    kit::UncertainDisk disk;
    Store store(folder.path());
    disk.onStep = [&] {
      if (random() % 60 != 0) return;
      failures.emplace_back(committed, std::make_unique<kit::TemporaryFolder>());
      disk.leave(failures.back().second->path(), random);
    };
    // Enough for the log to be written into the database, and begun anew.
    for (committed = 0; committed < 60; ++committed) {
      const HXValue value = HXValue::list({committed + 1, std::string(25'000, 'x')});
      store.commit(changes({{"a", value}, {"b", value}, {"c", value}}));
    }
  }
  for (const auto& [atLeast, left] : failures) {
    const int found = numberIn(left->path());
    EXPECT_GE(found, atLeast);
    EXPECT_LE(found, atLeast + 1);
  }
  EXPECT_GE(failures.size(), 25U);
}

TEST_F(KeptStore, RefusesWholeCommitsWhileTheDiskIsFull) {
  kit::UncertainDisk disk;
  Store store(folder.path());
  store.commit(changes({{"a", 1}}));
  disk.isFull = true;
  const auto reason = errorOf([&] { store.commit(changes({{"a", 2}, {"b", std::string(100'000, 'b')}})); });
  EXPECT_EQ(reason, file().string() + ": database or disk is full");
  EXPECT_EQ(store.read().at("a").value, HXValue(1));
  EXPECT_THAT(store.read(), SizeIs(1));
  disk.isFull = false;
  store.commit(changes({{"a", 3}}));
  EXPECT_EQ(store.read().at("a").value, HXValue(3));
  EXPECT_THAT(store.complaints(), IsEmpty());
}

}  // namespace
}  // namespace HX::keeper
