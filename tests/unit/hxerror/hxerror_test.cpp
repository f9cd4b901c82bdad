#include <hxerror/hxerror.h>

#include <type_traits>

#include <gmock/gmock.h>

namespace {

static_assert(std::is_base_of_v<std::runtime_error, HX::HXError>);

TEST(HXError, keepsItsFiveFields) {
  const HX::HXError error("HXMemory", "getData", "Data not found Key", "source", 535);

  EXPECT_EQ(error.module(), "HXMemory");
  EXPECT_EQ(error.method(), "getData");
  EXPECT_EQ(error.message(), "Data not found Key");
  EXPECT_EQ(error.file(), "source");
  EXPECT_EQ(error.line(), 535);
}

TEST(HXError, hasNoSourcePositionUnlessGiven) {
  const HX::HXError error("HXMemory", "setValue", "no");

  EXPECT_EQ(error.file(), "");
  EXPECT_EQ(error.line(), 0);
}

TEST(HXError, readsAsOneSentenceWhenCaughtAsARuntimeError) {
  try {
    throw HX::HXError("HXMemory", "getData", "Data not found Key");
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "HXMemory.getData: Data not found Key");
  }
}

}  // namespace
