#include "recordings/player.h"

#include "../recorder/kit.h"
#include "recordings/moments.h"
#include "temporary_folder.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::recording::kit::at;
using HX::recording::kit::Script;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::Gt;
using testing::Le;

/// A recording of numbers under the key N, and what a player tells of it while somebody presses keys.
class Playing : public testing::Test {
 protected:
  /// A change at each of these seconds, of the value of its place.
  void record(const std::vector<double>& seconds, const std::string& key = "N") {
    Script script(file_);
    HX::recording::kit::Changes changes;
    int number = 0;
    for (const double second : seconds) {
      auto change = changes.of(key, ++number);
      change.time = at(second);
      script.add(change);
      script.closeChunk();
    }
    script.finish();
  }
  /// @param wishes  One for each time that it waits; then every change at once.
  bool play(PlayOptions options, std::vector<Wish> wishes = {}) {
    HX::recording::Reader reader(file_);
    options.from = momentOf(reader, from_).time;
    options.to = momentOf(reader, to_).time;
    auto next = wishes.begin();
    Player player(
        reader, options,
        [&](const HX::recording::Entry& entry, const std::string& name) {
          told_.push_back(name + "=" + std::to_string(entry.value.asInt()));
        },
        [&](std::chrono::nanoseconds pause) {
          pauses_.push_back(pause);
          return next == wishes.end() ? Wish{Wish::Kind::Step, {}} : *next++;
        },
        [](auto, bool) {});
    return player.play();
  }

  const kit::TemporaryFolder folder_;
  const std::filesystem::path file_ = folder_.path() / "a.mcap";
  std::string from_ = "start";
  std::string to_ = "end";
  std::vector<std::string> told_;
  std::vector<std::chrono::nanoseconds> pauses_;
};

TEST_F(Playing, HasThePausesThatWereAtItsRate) {
  record({0, 1000, 3000});
  // Who steps is at a pause from then on.
  PlayOptions options;
  options.rate = 10;
  play(options, {{Wish::Kind::None, {}}, {Wish::Kind::Step, {}}});
  EXPECT_THAT(told_, ElementsAre("N=1", "N=2", "N=3"));
  ASSERT_GE(pauses_.size(), 3U);
  EXPECT_THAT(pauses_[0], AllOf(Gt(0s), Le(100s)));
  EXPECT_LE(pauses_[1], pauses_[0]) << "it goes on waiting for the same";
  EXPECT_LT(pauses_[2], 0s) << "for a wish";
}

TEST_F(Playing, IsPausedSoughtAndEndedFromTheKeyboard) {
  record({0, 1000, 2000, 3000});
  EXPECT_FALSE(play({}, {{Wish::Kind::Pause, {}},
                         {Wish::Kind::Seek, 1500s},  // From 1000, which it waits for.
                         {Wish::Kind::Seek, -2500s},
                         {Wish::Kind::Step, {}},
                         {Wish::Kind::End, {}}}));
  EXPECT_THAT(told_, ElementsAre("N=1", "N=3", "N=1", "N=2")) << "where it is sought the state is told";
}

TEST_F(Playing, GoesByTheOrderOfTheFileWhereTheClockWasSetBack) {
  record({100, 105, 110, 50, 55, 60});
  play({});
  EXPECT_THAT(told_, ElementsAre("N=1", "N=2", "N=3", "N=4", "N=5", "N=6"));
  told_.clear();
  to_ = "+5s";
  play({});
  EXPECT_THAT(told_, ElementsAre("N=1", "N=2"));
  told_.clear();
  from_ = "-5s";
  to_ = "end";
  play({});
  EXPECT_THAT(told_, ElementsAre("N=5", "N=6"));
}

TEST_F(Playing, LeavesKeysOutAndWritesOthersElsewhere) {
  record({0, 1}, "Arm/Left");
  HX::journal::Filter filter({"Arm/"});
  filter.exclude("Arm/Right");
  PlayOptions options;
  options.keys = filter;
  options.maps = {{"Arm/", "Sim/Arm/"}, {"A", "Never/"}};
  play(options);
  EXPECT_THAT(told_, ElementsAre("Sim/Arm/Left=1", "Sim/Arm/Left=2"));
  EXPECT_FALSE(options.wants("Arm/Right"));
  EXPECT_FALSE(options.wants("Leg"));
  EXPECT_FALSE(PlayOptions().wants("HXMemory/Names")) << "the memory raises it itself";
}

}  // namespace
}  // namespace korvo
