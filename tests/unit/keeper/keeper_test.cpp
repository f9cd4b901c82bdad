#include "capture_log.h"
#include "expect_error.h"
#include "hxkeeper.h"
#include "memory_fixture.h"
#include "temporary_folder.h"

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Keeper : public kit::MemoryFixture {
 protected:
  void keep(const std::vector<std::string>& patterns, const std::string& folder = "store") {
    broker->provideSettings("HXKeeper", GivenSettings::of(HXValue::map({{"keep", HXValue(patterns)},
                                                                        {"folder", (folder_.path() / folder).string()},
                                                                        {"window", "5ms"}})));
    keeper = HXModule::createModule<HXKeeper>(broker, "HXKeeper");
  }
  void TearDown() override {
    keeper.reset();
    MemoryFixture::TearDown();
  }
  /// Ends the broker and begins anew with the same store.
  void restart(const std::vector<std::string>& patterns) {
    keeper.reset();
    start();
    keep(patterns);
  }
  std::shared_ptr<HXKeeper> keeper;
  const kit::TemporaryFolder folder_;
};

TEST_F(Keeper, BringsBackWhatWasLastWrittenUnderTheWantedNames) {
  keep({"Config/", "*Limit"});
  memory->insertData("Config/Speed", 1);
  memory->insertData("Config/Speed", 2.5F);
  memory->setDescription("Config/Speed", "m/s");
  memory->insertData("Arm/Limit", HXValue::list({1, 2.5, "x"}));
  memory->insertData("Arm/Speed", 3);
  memory->insertData("Config/Gone", 4);
  keeper->flush();
  memory->removeData("Config/Gone");
  const HXValue speed = memory->getDataTimestamp("Config/Speed");
  restart({"Config/", "*Limit"});
  EXPECT_EQ(memory->getDataTimestamp("Config/Speed"), speed) << "value and time";
  EXPECT_EQ(memory->getDescriptionList({"Config/Speed"})[1][2], HXValue("m/s"));
  EXPECT_EQ(memory->getData("Arm/Limit"), HXValue::list({1, 2.5, "x"}));
  EXPECT_THAT(keeper->kept(), ElementsAre("Arm/Limit", "Config/Speed"));
  EXPECT_FALSE(memory->xGetSTMValue("Arm/Speed"));
}

TEST_F(Keeper, HasOnTheDiskWhatFlushHasReturnedFor) {
  keep({"Config/"});
  for (int i = 0; i < 20; ++i) {
    memory->insertData("Config/N", i);
    memory->insertData("Other", i);
    keeper->flush();
    // A copy of the files is what a crash at this moment leaves.
    const kit::TemporaryFolder crashed;
    for (const char* part : {"kept.db", "kept.db-wal"}) {
      std::filesystem::copy_file(folder_.path() / "store" / part, crashed.path() / part);
    }
    keeper::Store store(crashed.path());
    EXPECT_EQ(store.read().at("Config/N").value, HXValue(i));
  }
}

TEST_F(Keeper, LeavesWhatIsNotWantedThisTimeInTheStore) {
  keep({"Config/"});
  memory->insertData("Config/Speed", 1);
  restart({"Other/"});
  EXPECT_FALSE(memory->xGetSTMValue("Config/Speed"));
  restart({"Config/"});
  EXPECT_EQ(memory->getData("Config/Speed"), HXValue(1));
}

TEST_F(Keeper, KeepsAndForgetsWhatIsChosenWhileItRuns) {
  keep({});
  memory->insertData("Config/A", 1);
  memory->insertData("Config/B", 2);
  EXPECT_THAT(keeper->kept(), IsEmpty());
  keeper->keep({"Config/"});
  EXPECT_THAT(keeper->kept(), ElementsAre("Config/A", "Config/B"));
  memory->insertData("Config/A", 3);
  restart({});
  EXPECT_EQ(memory->getData("Config/A"), HXValue(3)) << "the store remembers what was chosen";
  keeper->keep({"Config/B"});
  keeper->forget({"Config/"});
  EXPECT_THAT(keeper->kept(), ElementsAre("Config/B"));
  EXPECT_EQ(memory->getData("Config/A"), HXValue(3)) << "the memory goes on";
  restart({"Config/"});
  EXPECT_FALSE(memory->xGetSTMValue("Config/A")) << "it is off the disk";
  EXPECT_EQ(memory->getData("Config/B"), HXValue(2));
}

TEST_F(Keeper, BringsBackWhatEarlierSettingsLeftOnceItIsChosen) {
  keep({"Config/"});
  memory->insertData("Config/A", 1);
  memory->insertData("Config/B", 2);
  restart({});
  keeper->forget({"Config/A"});
  memory->insertData("Config/B", 3);
  keeper->keep({"Config/"});
  EXPECT_FALSE(memory->xGetSTMValue("Config/A"));
  EXPECT_EQ(memory->getData("Config/B"), HXValue(3)) << "what the memory has is newer";
  restart({});
  EXPECT_EQ(memory->getData("Config/B"), HXValue(3));
}

TEST_F(Keeper, ForgetsAKeyThatBecomesAnEvent) {
  keep({"Config/"});
  memory->insertData("Config/A", 1);
  keeper->flush();
  memory->raiseEvent("Config/A", 2);
  keeper->flush();
  EXPECT_THAT(keeper->kept(), IsEmpty());
}

TEST_F(Keeper, SaysOnceThatTheDiskRefusesAndWritesAllOnceItTakesIt) {
  const kit::CaptureLog log({"hxkeeper"});
  std::ofstream(folder_.path() / "store") << "in the way";
  keep({"Config/"});
  memory->insertData("Config/A", 1);
  EXPECT_THAT(errorOf([&] { keeper->flush(); }), HasSubstr("store"));
  EXPECT_NE(keeper->state()["failure"].asString(), "");
  EXPECT_EQ(memory->getData("Config/A"), HXValue(1)) << "the memory goes on";
  EXPECT_THAT(log.texts(), SizeIs(1));
  std::filesystem::remove(folder_.path() / "store");
  while (!keeper->state()["failure"].asString().empty()) keeper->sleepFor(std::chrono::milliseconds(20));
  keeper->flush();
  restart({"Config/"});
  EXPECT_EQ(memory->getData("Config/A"), HXValue(1));
}

}  // namespace
}  // namespace HX
