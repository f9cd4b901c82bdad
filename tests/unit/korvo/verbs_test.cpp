#include "line/verbs.h"

#include "commands/commands.h"
#include "console/completion.h"
#include "line/help.h"

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(Verbs, AreAllCommandsThatDoNotNeedAConsole) {
  for (const Command& command : commands()) {
    const bool isVerb = findVerb(command.name) && command.name != "help";
    EXPECT_EQ(isVerb, command.use != Use::Console) << command.name;
  }
}

TEST(Verbs, StandUnderOneHeadingForEachGroup) {
  std::vector<std::string_view> headings;
  for (const Verb& verb : verbs()) {
    if (headings.empty() || headings.back() != verb.group) headings.push_back(verb.group);
  }
  const std::set<std::string_view> groups(headings.begin(), headings.end());
  EXPECT_EQ(headings.size(), groups.size()) << helpOnAll();
}

TEST(Verbs, AreTaughtByHelpAndByTheManual) {
  for (const Verb& verb : verbs()) {
    const std::string name(verb.name);
    EXPECT_THAT(helpOn(verb), AllOf(HasSubstr("Usage: korvo " + name), HasSubstr("Example"), HasSubstr("Exit status"),
                                    HasSubstr("\n  korvo " + name)));
    EXPECT_THAT(helpOnAll(), HasSubstr("\n  " + synopsis(verb) + " "));
    EXPECT_THAT(manualPage(nullptr), HasSubstr("\n.SS korvo "));
    EXPECT_THAT(manualPage(&verb), AllOf(HasSubstr("\n.SH OPTIONS\n"), HasSubstr("\n.SH ENVIRONMENT\n")));
  }
}

TEST(TellApart, LetsOptionsStandAnywhereUntilTwoHyphens) {
  const auto options = optionsOf(*findVerb("set"));
  const std::vector<std::string> words{"Foo", "--broker", "torso", "-1", "--timeout=2", "-", "--", "--broker", "--"};
  const GivenWords given = tellApart(*options, words);
  EXPECT_THAT(given.options, ElementsAre("--broker", "torso", "--timeout=2"));
  EXPECT_THAT(given.values, ElementsAre(testing::Pair("--broker", "torso"), testing::Pair("--timeout", "2")));
  EXPECT_THAT(given.arguments, ElementsAre("Foo", "-1", "-", "--broker", "--"));
}

TEST(Completions, OfferCommandsAndTheirOptions) {
  const auto complete = [](std::vector<std::string> words) { return completions(words); };
  EXPECT_THAT(complete({"desc"}), ElementsAre("describe", "descriptions"));
  EXPECT_THAT(complete({"help", "unw"}), ElementsAre());
  EXPECT_THAT(complete({"get", "--"}),
              ElementsAre("--broker", "--help", "--json", "--max-age", "--prefix", "--raw", "--timeout", "--view"));
  EXPECT_THAT(complete({"run", "--log-level", "e"}), ElementsAre("error"));
  EXPECT_THAT(complete({"fly", ""}), ElementsAre());
}

}  // namespace
}  // namespace korvo
