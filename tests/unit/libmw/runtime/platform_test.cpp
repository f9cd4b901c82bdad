#include <libmw/clock.h>
#include <libmw/os.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

TEST(Os, OpenedFilesAreNotInherited) {
  const auto path = testing::TempDir() + "korvo_open_" + std::to_string(getpid());
  {
    const std::unique_ptr<std::FILE, Closer> file(mw::os::fopen(path, "w+"));
    ASSERT_TRUE(file);
    EXPECT_TRUE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC);
    EXPECT_GT(std::fputs("x", file.get()), 0);
  }
  std::remove(path.c_str());
  errno = 0;
  EXPECT_EQ(mw::os::fopen(path, "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Os, UnsetVariablesReadAsEmpty) {
  unsetenv("KORVO_TEST_VARIABLE");
  EXPECT_EQ(mw::os::getenv("KORVO_TEST_VARIABLE"), "");
  setenv("KORVO_TEST_VARIABLE", "set", 1);
  EXPECT_EQ(mw::os::getenv("KORVO_TEST_VARIABLE"), "set");
  unsetenv("KORVO_TEST_VARIABLE");
}

TEST(Os, SleepLastsAtLeastAsLongAsAsked) {
  using std::chrono::milliseconds;
  const auto begin = std::chrono::steady_clock::now();
  mw::os::sleep(milliseconds(-5));
  mw::os::sleep(milliseconds(3));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(3));
}

TEST(SystemClock, CanBeReplacedAndRestored) {
  const auto fixed = []() noexcept { return mw::SystemTimePoint(std::chrono::nanoseconds(1'000'000'007)); };
  EXPECT_EQ(mw::exchangeSystemClock(fixed), nullptr);
  EXPECT_EQ(mw::systemNow().time_since_epoch().count(), 1'000'000'007);
  EXPECT_NE(mw::exchangeSystemClock(nullptr), nullptr);
  EXPECT_GT(mw::systemNow(), fixed());
}

}  // namespace
