#include "console/linesource.h"

#include "base/event.h"
#include "commands/arguments.h"

#include <array>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The lines of `text`, with an error as "error".
std::vector<std::string> linesOf(const std::string& text, std::size_t longest = 100) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  std::thread writer([&] {
    EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(ends[1]);
  });
  const Event stop;
  FileLines source(ends[0], stop.file(), longest);
  std::vector<std::string> lines;
  for (bool more = true; more;) {
    try {
      const auto line = source.next();
      more = line.has_value();
      if (more) lines.push_back(*line);
    } catch (const InputError&) {
      lines.emplace_back("error");
    }
  }
  writer.join();
  close(ends[0]);
  return lines;
}

TEST(FileLines, KeepBytesAsTheyAreAndTheLastLineWithoutLineFeed) {
  const std::string bytes("x\0\xff\r", 4);
  EXPECT_THAT(linesOf(""), IsEmpty());
  EXPECT_THAT(linesOf("a\n\nb\n"), ElementsAre("a", "", "b"));
  EXPECT_THAT(linesOf("a\n" + bytes), ElementsAre("a", bytes));
}

TEST(FileLines, GoOnBehindALineThatIsTooLong) {
  const std::string longLine(std::size_t{1} << 20, 'x');
  EXPECT_THAT(linesOf("a\n" + longLine + "\nb\n"), ElementsAre("a", "error", "b"));
  EXPECT_THAT(linesOf(std::string(100, 'x') + "\n" + std::string(101, 'x')),
              ElementsAre(std::string(100, 'x'), "error"));
  EXPECT_THAT(linesOf(longLine + "\n" + longLine, FileLines::kLongestLine), ElementsAre(longLine, longLine));
}

TEST(FileLines, EndWhenToldToStopThoughTheInputStaysOpen) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  Event stop;
  FileLines source(ends[0], stop.file());
  stop.set();
  EXPECT_EQ(source.next(), std::nullopt);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
}  // namespace korvo
