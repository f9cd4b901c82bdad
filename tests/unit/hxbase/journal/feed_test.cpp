#include <hxcommon/feed.h>
#include <hxproxies/hxmemoryproxy.h>

#include <expect_error.h>
#include <future>
#include <memory_fixture.h>
#include <mutex>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace HX {
namespace {

/// Keeps what it hears of "Arm/", and writes what follows from it.
class Mirror : public HXModule {
 public:
  using HXModule::HXModule;

  void init() override {
    follow_ = follow(journal::Filter({"Arm/"}), [this](const journal::Change& change) {
      memory().insertData("Mirror/" + std::string(change.key), change.value);
    });
  }

 private:
  journal::Follow follow_;
};

class ModuleFeed : public kit::MemoryFixture {
 protected:
  void expectValue(const std::string& key, const HXValue& value) {
    while (!memory->xGetSTMValue(key)) std::this_thread::yield();
    EXPECT_EQ(memory->getData(key), value);
  }
};

TEST_F(ModuleFeed, FollowsAndWritesWithWhatEveryModuleHas) {
  memory->insertData("Arm/Old", 0);
  const auto mirror = HXModule::createModule<Mirror>(broker, "Mirror");
  memory->insertData("Arm/Speed", 3);
  expectValue("Mirror/Arm/Speed", 3);
  mirror->exit();
}

TEST_F(ModuleFeed, IsThereForProgramsThatAreNoModule) {
  const auto journal = ownJournal(*broker);
  ASSERT_EQ(journal.get(), &memory->journal());
  std::promise<std::string> told;
  journal::FollowOptions options;
  options.snapshot = false;
  const auto followed = follow(
      broker, journal::Filter({"Arm/"}),
      [&](const journal::Change& change) { told.set_value(std::string(change.key)); }, options);
  memory->insertData("Arm/Speed", 3);
  EXPECT_EQ(told.get_future().get(), "Arm/Speed");
  EXPECT_EQ(retainedChanges(broker).latest, journal->position());
  EXPECT_EQ(changesAt(broker, journal::TimePoint::min()), journal->retained().from);
}

TEST_F(ModuleFeed, EndsWithTheMemoryAndSaysSoAfterwards) {
  const auto journal = ownJournal(*broker);
  const auto followed = follow(broker, {}, [](const journal::Change&) {});
  const auto kept = broker;
  shutDown();
  EXPECT_FALSE(journal->isRecording());
  EXPECT_EQ(errorOf([&] { journal->follow({}, [](const journal::Change&) {}); }), "the journal is closed");
  EXPECT_EQ(errorOf([&] { follow(kept, {}, [](const journal::Change&) {}); }),
            "there is no memory whose changes could be followed");
}

}  // namespace
}  // namespace HX
