#include <hxerror/hxerror.h>

#include <gmock/gmock.h>

namespace {

TEST(HXError, keepsItsFiveFieldsAndReadsAsOneSentence) {
  const HX::HXError error("HXMemory", "getData", "Data not found Key", "source", 535);
  EXPECT_EQ(error.module() + "|" + error.method() + "|" + error.message(), "HXMemory|getData|Data not found Key");
  EXPECT_EQ(error.file(), "source");
  EXPECT_EQ(error.line(), 535);
  const HX::HXError unplaced("HXMemory", "setValue", "no");
  EXPECT_EQ(unplaced.file(), "");
  EXPECT_EQ(unplaced.line(), 0);
  EXPECT_STREQ(static_cast<const std::runtime_error&>(unplaced).what(), "HXMemory.setValue: no");
}

}  // namespace
