#include <libmw/os.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

TEST(Os, OpenedFilesAreNotInherited) {
  const auto path = testing::TempDir() + "korvo_open_" + std::to_string(getpid());
  {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(mw::os::fopen(path, "w+"), std::fclose);
    ASSERT_TRUE(file);
    EXPECT_TRUE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC);
    EXPECT_GT(std::fputs("x", file.get()), 0);
  }
  std::remove(path.c_str());
  EXPECT_EQ(mw::os::fopen(path, "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
