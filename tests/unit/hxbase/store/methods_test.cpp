#include "store_fixture.h"

#include <hxproxies/hxmemoryproxy.h>

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

TEST_F(BoundMethods, KeepTheTypeOfWhatIsInserted) {
  const auto stored = [this](const auto& value) {
    generic->call("insertData", "key", value);
    return memory->getData("key");
  };
  EXPECT_EQ(stored(5), HXValue(5));
  EXPECT_EQ(stored(5.5F), HXValue(5.5F));
  EXPECT_EQ(stored("text"), HXValue("text"));
  EXPECT_EQ(stored(std::string("text")), HXValue("text"));
  EXPECT_EQ(stored(true), HXValue(true));
  EXPECT_EQ(stored(5.0), HXValue(5.0));
  EXPECT_EQ(stored(std::int64_t{5}), HXValue(std::int64_t{5}));
  EXPECT_EQ(stored(HXValue::list({1, "a"})), HXValue::list({1, "a"}));
  EXPECT_EQ(stored(HXValue(7)), HXValue(7));
  EXPECT_EQ(stored(HXValue()), HXValue());
}

TEST_F(BoundMethods, AreChosenByTheInsertedType) {
  const auto entry = [this](const auto& value) {
    const std::string key = "key";
    const std::array parameters{mw::AnyReference::of(key), mw::AnyReference::of(value)};
    const mw::MetaObject& object = generic->asObject()->metaObject();
    const auto& chosen = object.resolve("insertData", parameters);
    const auto overloads = object.findMethods("insertData");
    return std::ranges::find(overloads, &chosen) - overloads.begin();
  };
  EXPECT_EQ(entry(5), 0);
  EXPECT_EQ(entry(5.5F), 1);
  EXPECT_EQ(entry(std::string("text")), 2);
  EXPECT_EQ(entry(true), 3);
  EXPECT_EQ(entry(5.5), 3);
  EXPECT_EQ(entry(std::int64_t{1} << 40), 3);
  EXPECT_EQ(entry(HXValue::list({1})), 3);
  EXPECT_EQ(entry(HXValue(5)), 0);
  EXPECT_EQ(entry(HXValue("text")), 2);
}

TEST_F(BoundMethods, AnswerUnderTheirPublishedNames) {
  generic->call("insertData", "key", 5);
  EXPECT_EQ(generic->call<HXValue>("getData", "key"), HXValue(5));
  EXPECT_EQ(generic->call<HXValue>("getData", "key", 99), HXValue(5));
  EXPECT_EQ(generic->call<int*>("getIntPtr", "key"), memory->getIntPtr("key"));
  EXPECT_EQ(generic->call<void*>("getDataPtr", "key"), memory->getIntPtr("key"));
  EXPECT_EQ(*generic->call<float*>("getFloatPtr", "float"), 0.0F);
  EXPECT_EQ(generic->call<std::string>("getType", "key"), "Data");
  EXPECT_EQ(generic->call<HXValue>("getTimestamp", "key")[0], HXValue(5));
  generic->call("_insertObject", "object", HXValue("x"), 1);
  EXPECT_EQ(memory->getData("object"), HXValue("x"));
}

TEST_F(BoundMethods, HandErrorsOnWithAllTheirFields) {
  EXPECT_EQ(store::errorOf([this] { generic->call<HXValue>("getData", "gone"); }, true),
            (store::Fields{"getData", "Data not found gone", 535}));
  EXPECT_THROW(generic->call<HXValue>("getData"), std::runtime_error);
  EXPECT_THROW(generic->call<HXValue>("getData", "key", "no number"), std::runtime_error);
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
