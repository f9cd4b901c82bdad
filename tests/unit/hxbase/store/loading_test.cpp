#include "store_fixture.h"

#include <hxcommon/hxmodule.h>

namespace HX {
namespace {

using store::errorOf;
using store::Fields;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class LoadedMemory : public store::StoreFixture {};

TEST_F(LoadedMemory, HasTheBookkeepingEventsAndSaysItIsReady) {
  EXPECT_THAT(memory->getDataListName(), UnorderedElementsAre("HXMemory/KeyAdded", "HXMemory/KeyRemoved",
                                                              "HXMemory/KeyTypeChanged", "KorvoReady"));
  EXPECT_THAT(memory->getEventList(),
              ElementsAre("HXMemory/KeyAdded", "HXMemory/KeyRemoved", "HXMemory/KeyTypeChanged"));
  EXPECT_THAT(memory->getMicroEventList(), ElementsAre("KorvoReady"));
  EXPECT_EQ(memory->getData("KorvoReady"), HXValue(0));
  EXPECT_EQ(memory->getData("HXMemory/KeyRemoved"), HXValue());
}

TEST_F(LoadedMemory, HasToldOfEveryKeyInTheOrderOfTheirAddition) {
  EXPECT_THAT(told(Memory::keyAddedKey),
              ElementsAre("HXMemory/KeyAdded", "HXMemory/KeyRemoved", "HXMemory/KeyTypeChanged", "KorvoReady"));
}

TEST_F(LoadedMemory, IsTheOnlyOneOfItsProcess) {
  const auto another = HXBroker::create("another");
  const auto load = [&] { HXModule::createModule<HXMemory>(another, "HXMemory"); };
  EXPECT_EQ(errorOf(load), (Fields{"HXMemory", "this process has a memory already"}));
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
