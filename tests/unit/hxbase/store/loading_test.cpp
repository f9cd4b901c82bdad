#include "store_fixture.h"

#include <hxcommon/hxmodule.h>

namespace HX {
namespace {

using testing::ElementsAre;

class LoadedMemory : public store::StoreFixture {};

TEST_F(LoadedMemory, IsTheOnlyOneOfItsProcess) {
  const auto another = HXBroker::create("another");
  const auto load = [&] { HXModule::createModule<HXMemory>(another, "HXMemory"); };
  EXPECT_EQ(errorOf(load), "HXMemory.HXMemory: this process has a memory already");
  EXPECT_THAT(another->modules(), ElementsAre());

  memory->insertData("still", 1);
  EXPECT_EQ(memory->getData("still"), HXValue(1));

  shutDown();
  EXPECT_NO_THROW(load());
  another->shutdown();
  start();
  EXPECT_THAT(added(), ElementsAre());
}

TEST_F(LoadedMemory, CanBeLoadedAfterALoadingThatFailed) {
  shutDown();
  const auto taken = HXBroker::create("taken");
  HXModule::createModule<HXModule>(taken, "HXMemory");
  EXPECT_THROW(HXModule::createModule<HXMemory>(taken, "HXMemory"), std::runtime_error);
  start();
  EXPECT_EQ(memory->getData("KorvoReady"), HXValue(0));
}

}  // namespace
}  // namespace HX
