#include "capture_log.h"
#include "store_fixture.h"

namespace HX {
namespace {

using testing::ElementsAre;

class Addresses : public store::StoreFixture {};

TEST_F(Addresses, OfValuesWithoutATypeAreGivenWithAWarning) {
  const kit::CaptureLog log({"hxmemory"});
  void* const address = memory->getPtrData("new");
  using Entry = kit::CaptureLog::Entry;
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "hxmemory", "getPtrData",
                                               "getPtrValue on stmvalue with no type: new"}));
  EXPECT_EQ(memory->getPtrData("new"), address);
  memory->insertData("new", 4);
  EXPECT_EQ(*static_cast<int*>(address), 4);
  EXPECT_EQ(memory->getPtrData("new"), address);
  EXPECT_EQ(log.entries().size(), 2U);
  EXPECT_THROW(memory->removeData("new"), HXError);
}

}  // namespace
}  // namespace HX
