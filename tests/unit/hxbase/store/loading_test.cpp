#include "memory_fixture.h"
#include "print_value.h"

#include <hxbase/hxmemory.h>

#include <gmock/gmock.h>

namespace HX {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class LoadedMemory : public kit::MemoryFixture {};

TEST_F(LoadedMemory, HasTheBookkeepingEventsAndSaysItIsReady) {
  EXPECT_THAT(memory->getDataListName(), UnorderedElementsAre("HXMemory/KeyAdded", "HXMemory/KeyRemoved",
                                                              "HXMemory/KeyTypeChanged", "KorvoReady"));
  EXPECT_THAT(memory->getEventList(),
              ElementsAre("HXMemory/KeyAdded", "HXMemory/KeyRemoved", "HXMemory/KeyTypeChanged"));
  EXPECT_THAT(memory->getMicroEventList(), ElementsAre("KorvoReady"));
  EXPECT_EQ(memory->getData("KorvoReady"), HXValue(0));
}

}  // namespace
}  // namespace HX
