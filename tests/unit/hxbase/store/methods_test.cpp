#include "store_fixture.h"

#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

namespace HX {
namespace {

using Json = nlohmann::ordered_json;

class BoundMethods : public store::StoreFixture {};

Json documented(const mw::MetaParameter& part) { return {{"name", part.name}, {"description", part.description}}; }

Json documented(const mw::MetaMethod& method) {
  Json json = {{"name", method.name}, {"description", method.description}, {"flags", method.flags}};
  json["parameters"] = Json::array();
  for (const auto& parameter : method.parameters) json["parameters"].push_back(documented(parameter));
  if (method.result) json["result"] = documented(*method.result);
  return json;
}

TEST_F(BoundMethods, AreDocumentedAsPublished) {
  std::ifstream file(HX_PUBLISHED_METHODS);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const Json published = Json::parse(text);
  EXPECT_EQ(published.dump() + "\n", text) << "the file is one line without blanks";

  const mw::MetaObject& object = generic->asObject()->metaObject();
  EXPECT_EQ(object.description(),
            "HXMemory provides a centralized memory that can be used to store and retrieve named values. It also acts "
            "as a hub for the distribution of event notifications.");
  ASSERT_EQ(object.methods().size(), published.size());
  for (std::size_t i = 0; i < published.size(); ++i) {
    const mw::MetaMethod& method = object.methods()[i];
    EXPECT_EQ(documented(method), published[i]);
    EXPECT_EQ(method.module, "HXMemory");
    EXPECT_EQ(method.parameters.size(), method.types.size()) << method.signature();
    EXPECT_EQ(static_cast<int>(method.callType), 0);
  }
}

TEST_F(BoundMethods, TakeAndReturnTheTypesThatCallersCountOn) {
  const char* const expected =
      "declareEvent(string) void; declareEvent(string, string) void; getData(string) value; "
      "getData(string, int) value; subscriber(string) object; getTimestamp(string) value; "
      "getEventHistory(string) value; getDataList(string) list<string>; getDataListName() list<string>; "
      "getDataOnChange(string, int) value; getDataPtr(string) pointer<void>; getIntPtr(string) pointer<int>; "
      "getFloatPtr(string) pointer<float>; getEventList() list<string>; getExtractorEvent(string) list<string>; "
      "getListData(value) value; getMicroEventList() list<string>; getSubscribers(string) list<string>; "
      "getType(string) string; insertData(string, int) void; insertData(string, float) void; "
      "insertData(string, string) void; insertData(string, value) void; insertListData(value) void; "
      "raiseEvent(string, value) void; raiseMicroEvent(string, value) void; removeData(string) void; "
      "removeEvent(string) void; removeMicroEvent(string) void; subscribeToEvent(string, string, string) void; "
      "subscribeToEvent(string, string, string, string) void; "
      "subscribeToMicroEvent(string, string, string, string) void; unregisterModuleReference(string) void; "
      "_perf() void; unsubscribeToEvent(string, string) void; unsubscribeToMicroEvent(string, string) void; "
      "_insertObject(string, value, int) void; _subscribeOnDataSetTimePolicy(string, string, int) void; "
      "_subscribeOnDataSetSynchronizeResponse(string, string, bool) void; setDescription(string, string) void; "
      "getDescriptionList(list<string>) value; addMapping(string, string, string) void; "
      "addMapping(string, map<string>) void; ";
  std::string signatures;
  for (const mw::MetaMethod& method : generic->asObject()->metaObject().methods()) {
    signatures += method.signature() + " " + method.resultType->name + "; ";
  }
  EXPECT_EQ(signatures, expected);
}

TEST_F(BoundMethods, TimeTheirOwnCost) {
  testing::internal::CaptureStdout();
  generic->call("_perf");
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::MatchesRegex("1000 Direct call\ntime: [0-9]+\n1000 Specialized proxy call\ntime: [0-9]+\n"
                                    "1000 Proxy call\ntime: [0-9]+\n"));
  EXPECT_EQ(memory->getData("perf"), HXValue(1));
  EXPECT_THAT(added(), testing::ElementsAre("perf"));
}

}  // namespace
}  // namespace HX
