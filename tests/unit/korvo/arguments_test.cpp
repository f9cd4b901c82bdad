#include "arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct ExtentCase {
  std::string_view text;
  std::string_view extent;
};
void PrintTo(const ExtentCase& shown, std::ostream* stream) { *stream << shown.text; }

class JsonExtent : public testing::TestWithParam<ExtentCase> {};

TEST_P(JsonExtent, EndsWhereTheTextDoes) {
  EXPECT_EQ(GetParam().text.substr(0, jsonExtent(GetParam().text)), GetParam().extent);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, JsonExtent,
    testing::Values(ExtentCase{"", ""}, ExtentCase{"1 2", "1"}, ExtentCase{"-1.5e3\t2", "-1.5e3"},
                    ExtentCase{"null x", "null"}, ExtentCase{"1,2 3", "1,2"}, ExtentCase{"\"a b\" c", "\"a b\""},
                    ExtentCase{R"("a \" b\\" c)", R"("a \" b\\")"}, ExtentCase{"\"never closed", "\"never closed"},
                    ExtentCase{"[1, [2, 3]] 4", "[1, [2, 3]]"}, ExtentCase{R"({"]": "}"} 1)", R"({"]": "}"})"},
                    ExtentCase{"{\"a\": [1, 2", "{\"a\": [1, 2"}, ExtentCase{"[1}2]", "[1}"}, ExtentCase{"[][]", "[]"},
                    ExtentCase{"]1 2", "]1"}, ExtentCase{R"(["\)", R"(["\)"}));

TEST(JsonExtent, OfManyOpenBracketsIsFoundWithoutRecursion) {
  const std::string deep(1'000'000, '[');
  EXPECT_EQ(jsonExtent(deep), deep.size());
}

TEST(Arguments, AreReadFromLeftToRight) {
  Arguments arguments("  Foo \"a b\"\t{\"x\": [1, 2.0]}  7 ");
  EXPECT_EQ(arguments.word("KEY"), "Foo");
  EXPECT_EQ(arguments.word("KEY"), "a b");
  EXPECT_EQ(arguments.json("JSON"), HX::HXValue::map({{"x", HX::HXValue::list({1, 2.0})}}));
  EXPECT_THAT(arguments.jsons("JSON"), ElementsAre(HX::HXValue(7)));
  arguments.end();
}

TEST(Arguments, TakeAFlagOnlyAsAWholeWord) {
  Arguments arguments("--json --jsonx");
  EXPECT_TRUE(arguments.takeFlag("--json"));
  EXPECT_FALSE(arguments.takeFlag("--json"));
  EXPECT_THAT(arguments.words("KEY"), ElementsAre("--jsonx"));
}

/// The error of `read`, which must be one of input.
template <class Read>
std::string errorOf(std::string_view text, Read read) {
  Arguments arguments(text);
  try {
    read(arguments);
  } catch (const InputError& error) {
    return error.what();
  }
  return "none";
}

TEST(Arguments, NameWhatIsWrong) {
  const auto word = [](Arguments& arguments) { arguments.word("KEY"); };
  const auto json = [](Arguments& arguments) { arguments.json("VALUE"); };
  const auto end = [](Arguments& arguments) { arguments.end(); };
  EXPECT_EQ(errorOf(" ", word), "KEY is missing");
  EXPECT_EQ(errorOf("", json), "VALUE is missing");
  EXPECT_THAT(errorOf("\"open", word), HasSubstr("KEY \"open: JSON line 1"));
  EXPECT_THAT(errorOf("nul", json), HasSubstr("VALUE nul: JSON line 1"));
  EXPECT_THAT(errorOf("\"a\"b", word), HasSubstr("before b"));
  EXPECT_THAT(errorOf("[1]2", json), HasSubstr("before 2"));
  EXPECT_EQ(errorOf("2 more", end), "unexpected text: 2 more");
}

TEST(Arguments, ShowOnlyTheBeginningOfALongText) {
  const std::string text = "x" + std::string(100'000, ' ').replace(0, 1, std::string(50'000, 'y'));
  EXPECT_LT(errorOf(text, [](Arguments& arguments) { arguments.end(); }).size(), 100U);
}

}  // namespace
}  // namespace korvo
