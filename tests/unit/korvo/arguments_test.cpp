#include "commands/arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(JsonExtent, EndsWhereTheTextDoes) {
  const std::pair<std::string_view, std::string_view> cases[] = {{"", ""},
                                                                 {"1 2", "1"},
                                                                 {"-1.5e3\t2", "-1.5e3"},
                                                                 {"null x", "null"},
                                                                 {"1,2 3", "1,2"},
                                                                 {"[1}2]", "[1}"},
                                                                 {"[][]", "[]"},
                                                                 {"]1 2", "]1"},
                                                                 {"\"a b\" c", "\"a b\""},
                                                                 {R"("a \" b\\" c)", R"("a \" b\\")"},
                                                                 {R"(["\)", R"(["\)"},
                                                                 {"\"never closed", "\"never closed"},
                                                                 {"[1, [2, 3]] 4", "[1, [2, 3]]"},
                                                                 {R"({"]": "}"} 1)", R"({"]": "}"})"},
                                                                 {"{\"a\": [1, 2", "{\"a\": [1, 2"}};
  for (const auto& [text, extent] : cases) EXPECT_EQ(text.substr(0, jsonExtent(text)), extent);
}

constexpr Option kOptions[] = {{"--json", "", ""}, {"--rate", "HZ", ""}, {"--count", "N", ""}};

TEST(Arguments, AreReadFromLeftToRightWithOptionsAnywhere) {
  Arguments arguments("  get --rate 2.5 Foo \"a b\"\t{\"x\": [1, 2.0]}  --json [0]x \"--json\" -- --count 7 ");
  EXPECT_EQ(arguments.word("COMMAND"), "get");
  arguments.takeOptions(kOptions);
  EXPECT_EQ(arguments.word("KEY"), "Foo");
  EXPECT_EQ(arguments.word("KEY"), "a b");
  EXPECT_EQ(arguments.json("JSON"), HX::HXValue::map({{"x", HX::HXValue::list({1, 2.0})}}));
  EXPECT_THAT(arguments.words("KEY"), ElementsAre("[0]x", "--json", "--count", "7"));
  arguments.end();
  EXPECT_TRUE(arguments.has("--json"));
  EXPECT_EQ(arguments.number("--rate"), 2.5);
  EXPECT_EQ(arguments.count("--count"), std::nullopt);
}

TEST(Arguments, OfAShellAreTakenAsTheyAre) {
  Arguments arguments({"Left \"arm\"", "", "-", "{\"x\": -1}", "-1"}, {{"--count", "3"}});
  EXPECT_EQ(arguments.count("--count"), 3U);
  EXPECT_FALSE(arguments.has("--json"));
  EXPECT_EQ(arguments.word("KEY"), "Left \"arm\"");
  EXPECT_EQ(arguments.word("KEY"), "");
  EXPECT_TRUE(arguments.takeDash());
  EXPECT_EQ(arguments.json("JSON"), HX::HXValue::map({{"x", -1}}));
  EXPECT_FALSE(arguments.takeDash());
  EXPECT_THROW(arguments.end(), InputError);
  EXPECT_THAT(arguments.jsons("JSON"), ElementsAre(HX::HXValue(-1)));
  EXPECT_THROW(Arguments({"\xff"}, {}).word("KEY"), InputError);
}

/// The error of `read`, which must be one of input.
template <class Read>
std::string refusalOf(std::string_view text, Read read) {
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
  EXPECT_EQ(refusalOf(" ", word), "KEY is missing");
  EXPECT_EQ(refusalOf("", json), "VALUE is missing");
  EXPECT_THAT(refusalOf("\"open", word), HasSubstr("KEY \"open: JSON line 1"));
  EXPECT_THAT(refusalOf("nul", json), HasSubstr("VALUE nul: JSON line 1"));
  EXPECT_THAT(refusalOf("\"a\"b", word), HasSubstr("KEY \"a\"b: JSON line 1"));
  EXPECT_THAT(refusalOf("[1]2", json), HasSubstr("VALUE [1]2: JSON line 1"));
  EXPECT_THAT(refusalOf("hello", json), testing::EndsWith("; a string needs quotes: \"hello\""));
  EXPECT_THAT(refusalOf("1x", json), testing::Not(HasSubstr("quotes")));
  EXPECT_EQ(refusalOf("2 more", end), "unexpected text: 2");
  EXPECT_LT(refusalOf(std::string(50'000, 'y'), end).size(), 100U);
  const auto options = [](Arguments& arguments) { arguments.takeOptions(kOptions); };
  EXPECT_EQ(refusalOf("--jsn", options), "no option --jsn; did you mean --json?");
  EXPECT_EQ(refusalOf("Foo --rate", options), "--rate HZ is missing");
  for (const char* rate : {"0", "-1", "1x", "inf", "\"\""}) {
    Arguments arguments(std::string("--rate ") + rate);
    arguments.takeOptions(kOptions);
    EXPECT_THROW(arguments.number("--rate"), InputError) << rate;
  }
}

}  // namespace
}  // namespace korvo
