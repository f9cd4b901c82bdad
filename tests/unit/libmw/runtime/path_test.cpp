#include "temporary_folder.h"

#include <libmw/os.h>
#include <libmw/path.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
namespace path = mw::path;
using testing::ElementsAre;

/// A scratch tree with the user's and two system folders in it, named by the environment.
struct DataPaths : testing::Test {
  const kit::TemporaryFolder scratch;
  const fs::path root = scratch.path();
  const std::string user = root / "user";
  const std::string first = root / "first";
  const std::string second = root / "second";
  const std::string oldHome = mw::os::getenv("HOME");

  DataPaths() {
    setenv("XDG_DATA_HOME", user.c_str(), 1);
    setenv("XDG_DATA_DIRS", (first + "::relative/entry:" + second).c_str(), 1);
  }
  ~DataPaths() override {
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_DATA_DIRS");
    setenv("HOME", oldHome.c_str(), 1);
  }

  std::string place(const fs::path& file) const {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "data";
    return file;
  }
};

TEST_F(DataPaths, AreSearchedUserFirstThenSystemInOrder) {
  EXPECT_THAT(path::dataPaths("app"), ElementsAre(user + "/app", first + "/app", second + "/app"));
  for (const auto& folder : {second, first, user}) {
    const auto placed = place(folder + "/app/maps/door.txt");
    EXPECT_EQ(path::findData("app", "maps/door.txt"), placed);
  }
  EXPECT_EQ(path::findData("app", "maps/door.txt", true), first + "/app/maps/door.txt");
  EXPECT_EQ(path::findData("app", "maps"), "") << "a folder";
}

TEST_F(DataPaths, FallBackToTheUsualPlaces) {
  unsetenv("XDG_DATA_DIRS");
  setenv("HOME", "/home/robot", 1);
  for (const char* useless : {"", "relative/home"}) {
    setenv("XDG_DATA_HOME", useless, 1);
    EXPECT_THAT(path::dataPaths("app"),
                ElementsAre("/home/robot/.local/share/app", "/usr/local/share/app", "/usr/share/app"));
  }
  unsetenv("HOME");
  EXPECT_THAT(path::dataPaths("app"), ElementsAre("/usr/local/share/app", "/usr/share/app"));
}

TEST_F(DataPaths, PrependedFoldersHoldFilesDirectlyAndTheLatestComesFirst) {
  place(user + "/app/map.txt");
  const auto one = place(root / "one/map.txt");
  const auto two = place(root / "two/map.txt");
  path::prependDataDir(root / "one");
  EXPECT_EQ(path::findData("app", "map.txt", true), one);
  path::prependDataDir(root / "two");
  EXPECT_EQ(path::findData("app", "map.txt"), two);
  path::prependDataDir(root / "one/");
  EXPECT_EQ(path::findData("app", "map.txt"), one);
  EXPECT_THROW(path::prependDataDir(""), std::invalid_argument);
}

TEST_F(DataPaths, RefuseNamesThatLeadElsewhere) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"app", "maps/../../x", "filename \"maps/../../x\" has a \"..\" part"},
      {"app", "/etc/passwd", "filename \"/etc/passwd\" is an absolute path"},
      {"app", "", "filename \"\" is empty"},
      {"app", std::string("a\0b", 3), "filename \"a\" contains a null character"},
      {"", "x", "application \"\" is empty"},
      {"..", "x", "application \"..\" has a \"..\" part"},
      {".", "x", "application \".\" is not one folder name"},
      {"a/b", "x", "application \"a/b\" is not one folder name"}};
  for (const auto& [application, filename, error] : cases) {
    const auto find = [&one = application, &other = filename] { path::findData(one, other); };
    EXPECT_THAT(find, testing::ThrowsMessage<std::invalid_argument>("path::findData: " + error));
  }
}

TEST_F(DataPaths, AreOpenedWithoutPassingThemOnToOtherPrograms) {
  const auto placed = place(user + "/app/map.txt");
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(mw::os::fopen(placed, "r"), std::fclose);
  ASSERT_TRUE(file);
  EXPECT_TRUE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(mw::os::fopen(placed + ".none", "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
