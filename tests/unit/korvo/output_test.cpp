#include "base/output.h"

#include <sstream>

#include <gtest/gtest.h>

namespace korvo {
namespace {

class OutputTest : public testing::Test {
 protected:
  std::ostringstream values;
  std::ostringstream errors;
  Output output{values, errors};
};

TEST_F(OutputTest, KeepsErrorsOnOneLineOfTheirOwnStreamAndTellsWhenNobodyReadsValues) {
  output.line("1");
  output.error("two\nlines\r\t\x1b[1m\x7f \\ h\xc3\xb6 \xff");
  EXPECT_EQ(values.str(), "1\n");
  EXPECT_EQ(errors.str(), "error: two\\nlines\\r\\t\\x1b[1m\\x7f \\ h\xc3\xb6 \xff\n");
  errors.setstate(std::ios::badbit);
  output.error("lost");
  EXPECT_TRUE(output.works());
  values.setstate(std::ios::badbit);
  output.line("lost");
  EXPECT_FALSE(output.works());
}

TEST_F(OutputTest, PrintsWhatItKeptBackAboveTheLineBeingTyped) {
  int arrived = 0;
  output.hold([&] { ++arrived; });
  output.line("1");
  output.error("two");
  EXPECT_EQ(arrived, 2);
  EXPECT_EQ(values.str(), "");
  EXPECT_TRUE(output.writeHeld());
  EXPECT_FALSE(output.writeHeld());
  EXPECT_EQ(values.str(), "\r\x1b[K1\nerror: two\n");
  output.line("3");
  output.release();
  output.line("4");
  EXPECT_EQ(arrived, 3);
  EXPECT_TRUE(values.str().ends_with("3\n4\n"));
}

}  // namespace
}  // namespace korvo
