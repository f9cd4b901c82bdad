#include "store_fixture.h"

#include <hxproxies/hxmemoryproxy.h>

#include <array>
#include <functional>
#include <set>
#include <utility>

namespace HX {
namespace {

/// Offers what the memory offers, and only notes what is called.
class Stand : public mw::GenericObject {
 public:
  explicit Stand(const mw::MetaObject& offered) { setMetaObject(offered); }

  mw::Future<mw::AnyValue> metaCall(unsigned method, mw::GenericFunctionParameters parameters,
                                    mw::MetaCallType) override {
    HXValue::List values;
    for (const mw::AnyReference& parameter : parameters) values.push_back(parameter.to<HXValue>());
    arguments = HXValue(std::move(values));
    called = metaObject().method(method);
    return mw::Future<mw::AnyValue>::ready(resultOf(*called->resultType));
  }
  void metaPost(unsigned, mw::GenericFunctionParameters) override {}
  mw::Future<mw::SignalLink> metaConnect(unsigned, const mw::SignalSubscriber&) override { return {}; }
  mw::Future<void> metaDisconnect(mw::SignalLink) override { return {}; }
  mw::Future<mw::AnyValue> metaProperty(unsigned) override { return {}; }
  mw::Future<void> metaSetProperty(unsigned, const mw::AnyValue&) override { return {}; }

  const mw::MetaMethod* called = nullptr;
  HXValue arguments;

 private:
  /// One of that type: "result" where it can be.
  static mw::AnyValue resultOf(const mw::TypeInterface& type) {
    if (type.kind == mw::TypeKind::Void) return {};
    if (type.kind == mw::TypeKind::Object) return mw::AnyValue(mw::AnyObject());
    if (type.kind == mw::TypeKind::Pointer) {
      return mw::AnyValue::build(&type, [](void* at) {
        *static_cast<void**>(at) = nullptr;
        return true;
      });
    }
    return mw::AnyReference::of(type.kind == mw::TypeKind::List ? HXValue::list({"result"}) : HXValue("result"))
        .convert(&type);
  }
};

class SpecialisedProxy : public store::StoreFixture {};

TEST_F(SpecialisedProxy, CallsEveryMethodByItsNameWithItsArgumentsInOrder) {
  const auto stand = std::make_shared<Stand>(generic->asObject()->metaObject());
  HXMemoryProxy proxy(std::make_shared<HXProxy>(mw::AnyObject(stand), "HXMemory"));
  const auto call = [&](auto method, const auto&... arguments) {
    return [&proxy, method, arguments...] { std::invoke(method, proxy, arguments...); };
  };
  using Proxy = HXMemoryProxy;
  using Text = const std::string&;
  const std::map<std::string, std::string> pairs{{"signal", "event"}};
  const HXValue list = HXValue::list({"list"});
  const HXValue a("a"), b("b"), c("c"), d("d");

  struct Row {
    std::string signature;
    HXValue::List arguments;
    std::function<void()> call;
  };
  const std::vector<Row> rows{
      {"declareEvent(string)", {a}, call(static_cast<void (Proxy::*)(Text)>(&Proxy::declareEvent), "a")},
      {"declareEvent(string, string)",
       {a, b},
       call(static_cast<void (Proxy::*)(Text, Text)>(&Proxy::declareEvent), "a", "b")},
      {"getData(string)", {a}, call(static_cast<HXValue (Proxy::*)(Text)>(&Proxy::getData), "a")},
      {"getData(string, int)", {a, 1}, call(static_cast<HXValue (Proxy::*)(Text, int)>(&Proxy::getData), "a", 1)},
      {"subscriber(string)", {a}, call(&Proxy::subscriber, "a")},
      {"getTimestamp(string)", {a}, call(&Proxy::getTimestamp, "a")},
      {"getEventHistory(string)", {a}, call(&Proxy::getEventHistory, "a")},
      {"getDataList(string)", {a}, call(&Proxy::getDataList, "a")},
      {"getDataListName()", {}, call(&Proxy::getDataListName)},
      {"getDataOnChange(string, int)", {a, 1}, call(&Proxy::getDataOnChange, "a", 1)},
      {"getDataPtr(string)", {a}, call(&Proxy::getDataPtr, "a")},
      {"getIntPtr(string)", {a}, call(&Proxy::getIntPtr, "a")},
      {"getFloatPtr(string)", {a}, call(&Proxy::getFloatPtr, "a")},
      {"getEventList()", {}, call(&Proxy::getEventList)},
      {"getExtractorEvent(string)", {a}, call(&Proxy::getExtractorEvent, "a")},
      {"getListData(value)", {list}, call(&Proxy::getListData, list)},
      {"getMicroEventList()", {}, call(&Proxy::getMicroEventList)},
      {"getSubscribers(string)", {a}, call(&Proxy::getSubscribers, "a")},
      {"getType(string)", {a}, call(&Proxy::getType, "a")},
      {"insertData(string, int)", {a, 1}, [&] { proxy.insertData("a", 1); }},
      {"insertData(string, float)", {a, 1.5F}, [&] { proxy.insertData("a", 1.5F); }},
      {"insertData(string, string)", {a, b}, [&] { proxy.insertData("a", std::string("b")); }},
      {"insertData(string, value)", {a, true}, [&] { proxy.insertData("a", true); }},
      {"insertListData(value)", {list}, call(&Proxy::insertListData, list)},
      {"raiseEvent(string, value)", {a, 1}, [&] { proxy.raiseEvent("a", 1); }},
      {"raiseMicroEvent(string, value)", {a, 1}, [&] { proxy.raiseMicroEvent("a", 1); }},
      {"removeData(string)", {a}, call(&Proxy::removeData, "a")},
      {"removeEvent(string)", {a}, call(&Proxy::removeEvent, "a")},
      {"removeMicroEvent(string)", {a}, call(&Proxy::removeMicroEvent, "a")},
      {"subscribeToEvent(string, string, string)",
       {a, b, c},
       call(static_cast<void (Proxy::*)(Text, Text, Text)>(&Proxy::subscribeToEvent), "a", "b", "c")},
      {"subscribeToEvent(string, string, string, string)",
       {a, b, c, d},
       call(static_cast<void (Proxy::*)(Text, Text, Text, Text)>(&Proxy::subscribeToEvent), "a", "b", "c", "d")},
      {"subscribeToMicroEvent(string, string, string, string)",
       {a, b, c, d},
       call(&Proxy::subscribeToMicroEvent, "a", "b", "c", "d")},
      {"unregisterModuleReference(string)", {a}, call(&Proxy::unregisterModuleReference, "a")},
      {"_perf()", {}, call(&Proxy::_perf)},
      {"unsubscribeToEvent(string, string)", {a, b}, call(&Proxy::unsubscribeToEvent, "a", "b")},
      {"unsubscribeToMicroEvent(string, string)", {a, b}, call(&Proxy::unsubscribeToMicroEvent, "a", "b")},
      {"_insertObject(string, value, int)", {a, list, 1}, call(&Proxy::_insertObject, "a", list, 1)},
      {"_subscribeOnDataSetTimePolicy(string, string, int)",
       {a, b, 1},
       call(&Proxy::_subscribeOnDataSetTimePolicy, "a", "b", 1)},
      {"_subscribeOnDataSetSynchronizeResponse(string, string, bool)",
       {a, b, true},
       call(&Proxy::_subscribeOnDataSetSynchronizeResponse, "a", "b", true)},
      {"setDescription(string, string)", {a, b}, call(&Proxy::setDescription, "a", "b")},
      {"getDescriptionList(list<string>)", {list}, call(&Proxy::getDescriptionList, std::vector<std::string>{"list"})},
      {"addMapping(string, string, string)",
       {a, b, c},
       call(static_cast<void (Proxy::*)(Text, Text, Text)>(&Proxy::addMapping), "a", "b", "c")},
      {"addMapping(string, map<string>)",
       {a, pairs},
       call(static_cast<void (Proxy::*)(Text, const std::map<std::string, std::string>&)>(&Proxy::addMapping), "a",
            pairs)}};

  std::multiset<std::string> offered, called;
  for (const mw::MetaMethod& method : stand->metaObject().methods()) offered.insert(method.signature());
  for (const Row& row : rows) {
    ASSERT_NO_THROW(row.call()) << row.signature;
    EXPECT_EQ(stand->called->signature(), row.signature);
    EXPECT_EQ(stand->arguments, HXValue(row.arguments)) << row.signature;
    called.insert(stand->called->signature());
  }
  EXPECT_EQ(called, offered);
}

enum class Gait : std::uint8_t { Walk = 2 };
enum Unscoped { kSomething = 3 };

TEST_F(SpecialisedProxy, StoresAndRaisesWhateverBecomesAValue) {
  HXMemoryProxy proxy(generic);
  const auto kept = [&](const auto& value) {
    proxy.raiseMicroEvent("raised", value);
    proxy.raiseEvent("raised", value);
    proxy.insertData("stored", value);
    EXPECT_EQ(memory->getData("raised"), memory->getData("stored"));
    return memory->getData("stored");
  };
  const std::pair<HXValue, HXValue> rows[] = {
      {kept(0.5), 0.5},
      {kept(5U), std::int64_t{5}},
      {kept(std::int64_t{5}), std::int64_t{5}},
      {kept(std::size_t{5}), std::int64_t{5}},
      {kept(std::uint8_t{5}), 5},
      {kept('c'), 99},
      {kept(true), true},
      {kept("text"), "text"},
      {kept(std::string_view("text")), "text"},
      {kept(std::array{0.5, 1.5}), HXValue::list({0.5, 1.5})},
      {kept(std::map<std::string, std::vector<bool>>{{"k", {true}}}), HXValue::map({{"k", HXValue::list({true})}})},
      {kept(HXValue::Binary{std::byte{1}}), HXValue::Binary{std::byte{1}}},
      {kept(Gait::Walk), 2},
      {kept(kSomething), 3}};
  for (const auto& [stored, expected] : rows) EXPECT_EQ(stored, expected);
  proxy.insertData("stored", {"a", "b"});
  EXPECT_EQ(memory->getData("stored"), HXValue::list({"a", "b"}));
  proxy.raiseEvent("raised", {1, 2});
  EXPECT_EQ(memory->getData("raised"), HXValue::list({1, 2}));
  proxy.raiseMicroEvent("raised", {0.5, 1.5});
  EXPECT_EQ(memory->getData("raised"), HXValue::list({0.5, 1.5}));
  EXPECT_EQ(errorOf([&] { proxy.insertData("stored", ~std::uint64_t{0}); }),
            "the number 18446744073709551615 does not fit Int64");
}

}  // namespace
}  // namespace HX
