#include "door.h"
#include "expect_error.h"

#include <libmw/dynamicobject.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXValue;
using mw::AnyFunction;
using mw::AnyReference;
using mw::AnyValue;
using testing::AllOf;
using testing::HasSubstr;

/// An object whose methods say which overload was called.
class Chooser : public mw::DynamicObject {
 public:
  Chooser() {
    builder_.setTypeName("Chooser").setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    add<>("none");
    add<int>("int");
    add<std::int64_t>("int64");
    add<float>("float");
    add<double>("double");
    add<std::string>("string");
    add<std::vector<std::string>>("list<string>");
    add<HXValue>("value");
    add<HXValue, HXValue>("value, value");
    add<HXValue, int>("value, int");
    add<int, HXValue>("int, value");
    add<std::string, double>("string, double");
    add<std::shared_ptr<Door>>("door");
    add<std::shared_ptr<Window>>("window");
    add<int>("strict", "int");
    add<float>("strict", "float");
    setType(builder_.build());
  }

 private:
  template <class... P>
  void add(const char* text) {
    add<P...>("choose", text);
  }
  template <class... P>
  void add(const char* method, const char* text) {
    builder_.advertiseMethod(mw::MetaMethodBuilder(method, "", ""),
                             AnyFunction::from([text](const P&...) { return std::string(text); }));
  }
  mw::ObjectBuilder builder_;
};

using Call = std::function<std::string(mw::GenericObject&)>;

template <class... Args>
Call callOf(const char* method, Args... args) {
  return [=](mw::GenericObject& object) { return object.call<std::string>(method, args...); };
}

template <class... Args>
std::pair<std::string, Call> choose(const char* expected, Args... args) {
  return {expected, callOf("choose", args...)};
}

TEST(Overloads, AreChosenByCountAndThenByTypes) {
  registerHouse();
  const auto chooser = std::make_shared<Chooser>();
  const std::pair<std::string, Call> choices[] = {
      choose("none"),
      choose("int", 1),
      choose("int64", std::int64_t{1}),
      choose("int64", std::uint32_t{1}),
      choose("float", 1.0F),
      choose("double", 1.0),
      choose("value", true),
      choose("string", "literal"),
      choose("string", std::string_view("view")),
      choose("list<string>", std::vector<std::string>{"a"}),
      choose("value", std::vector<int>{1}),
      choose("int", HXValue(1)),
      choose("value", HXValue()),
      choose("int", AnyValue(HXValue(1))),
      choose("value, int", 1, 1),  // As good as (int, value), and bound earlier.
      choose("int, value", 1, 1.0),
      choose("value, value", 1.0, 1.0),
      choose("string, double", "key", 1.0F),
      choose("window", std::make_shared<Window>()),
      choose("door", mw::AnyObject::from(std::make_shared<Door>())),
  };
  for (const auto& [expected, call] : choices) EXPECT_EQ(call(*chooser), expected);
  const char* const null = nullptr;
  EXPECT_THAT(errorOf([&] { chooser->call("choose", null); }), HasSubstr("null pointer"));
}

TEST(Overloads, WhereNoneFitsTheErrorNamesMethodArgumentsAndCandidates) {
  const auto chooser = std::make_shared<Chooser>();
  int number = 0;
  const std::pair<std::string, Call> refused[] = {{"strict()", callOf("strict")},
                                                  {"strict(bool)", callOf("strict", true)},
                                                  {"strict(int64)", callOf("strict", std::int64_t{1})},
                                                  {"strict(Double)", callOf("strict", HXValue(1.0))},
                                                  {"strict(Invalid)", callOf("strict", HXValue())},
                                                  {"strict(pointer<int>)", callOf("strict", &number)},
                                                  {"strict(int, int)", callOf("strict", 1, 1)}};
  for (const auto& [types, call] : refused) {
    EXPECT_THAT(errorOf([&, &wanted = call] { wanted(*chooser); }),
                AllOf(HasSubstr("Chooser."), HasSubstr(types), HasSubstr("strict(int), strict(float)")));
  }
  EXPECT_EQ(errorOf([&] { chooser->call("chose", 1); }), "Chooser.chose: no such method");
  EXPECT_EQ(chooser->async("chose", 1).error(), "Chooser.chose: no such method");
  EXPECT_EQ(errorOf([&] { chooser->connect("chose", mw::SignalSubscriber([] {})); }), "Chooser.chose: no such signal");
}

TEST(Overloads, DynamicFunctionsTakeWhatNobodyElseWants) {
  static int count = 0;
  const auto counting = [](const std::vector<AnyReference>& arguments) {
    count = static_cast<int>(arguments.size());
    return AnyReference::of(count);
  };
  mw::ObjectBuilder builder;
  builder.advertiseMethod(mw::MetaMethodBuilder("count", "", ""), AnyFunction::fromDynamicFunction(counting));
  builder.advertiseMethod(mw::MetaMethodBuilder("count", "", ""), AnyFunction::from([](const HXValue&) { return -1; }));
  const auto object = std::make_shared<mw::DynamicObject>(builder.build(), nullptr);
  EXPECT_EQ(object->call<int>("count", 1), -1);
  EXPECT_EQ(object->call<int>("count", 1, "two", 3.0), 3);
  EXPECT_EQ(object->metaObject().methods().front().signature(), "count(...)");
}

TEST(AnyFunctions, OfTypesKnownAtRunTimeAreStrictWithArgumentsAndResult) {
  const auto named = [](const char* name) {
    const auto* type = mw::typeNamed(name);
    EXPECT_TRUE(type) << name;
    return type;
  };
  EXPECT_EQ(mw::typeNamed("list<Door>"), nullptr);
  HXValue result(1);  // An int, which an int64 takes and a string does not.
  const auto make = [&](const char* returned) {
    return AnyFunction::fromTypes({named("list<double>"), named("int64"), named("dynamic")}, named(returned),
                                  [&](mw::GenericFunctionParameters given) {
                                    EXPECT_EQ(given[0].getIf<std::vector<double>>()->size(), 2U);
                                    EXPECT_EQ(*given[1].getIf<std::int64_t>(), 7);
                                    EXPECT_EQ(*given[2].getIf<std::string>(), "as it is");
                                    return AnyValue(result);
                                  });
  };
  const HXValue list = HXValue::list({1, 2.5});
  const std::string text = "as it is";
  const int seven = 7;
  const std::array given{AnyReference::of(list), AnyReference::of(seven), AnyReference::of(text)};
  EXPECT_EQ(*make("int64").call(given).getIf<std::int64_t>(), 1);
  EXPECT_EQ(*make("value").call(given).getIf<HXValue>(), HXValue(1));
  EXPECT_FALSE(make("void").call(given));
  EXPECT_THAT(errorOf([&] { make("string").call(given); }), AllOf(HasSubstr("result"), HasSubstr("string")));
  EXPECT_THAT(errorOf([&] { make("void").call(std::span(given).first(2)); }), HasSubstr("2 given, 3 wanted"));
  const std::array wrong{AnyReference::of(list), AnyReference::of(text), AnyReference::of(text)};
  EXPECT_THAT(errorOf([&] { make("void").call(wrong); }), AllOf(HasSubstr("argument 2"), HasSubstr("int64")));

  mw::ObjectBuilder builder;
  builder.advertiseMethod(mw::MetaMethodBuilder("of", "", ""), make("void"));
  const auto object = std::make_shared<mw::DynamicObject>(builder.build(), nullptr);
  EXPECT_EQ(object->metaObject().methods().front().signature(), "of(list<double>, int64, dynamic)");
}

TEST(AnyFunctions, HandAStringInAVariantOnWithoutACopy) {
  const HXValue value(std::string(100, 'x'));
  const AnyValue wrapped(value);
  const std::string* seen = nullptr;
  const auto function = AnyFunction::from([&](const std::string& text) { seen = &text; });
  for (const AnyReference& given : {AnyReference::of(value), AnyReference::of(wrapped)}) {
    seen = nullptr;
    function.call({&given, 1});
    EXPECT_EQ(seen, &value.asString());
  }
}

int twice(int number) noexcept { return 2 * number; }

TEST(AnyFunctions, CallEveryKindOfCallableAndNameWrongCalls) {
  const int given = 21;
  const std::vector<AnyReference> parameters{AnyReference::of(given)};
  const auto stateful = [offset = 1](int number) mutable { return number + offset++; };
  Door door(2);
  EXPECT_EQ(AnyFunction::from(&twice).call(parameters).take<int>(), 42);
  EXPECT_EQ(AnyFunction::from(stateful).call(parameters).take<int>(), 22);
  EXPECT_EQ(AnyFunction::from(&door, &Door::open).call({}).take<int>(), 3);
  EXPECT_EQ(AnyFunction::ofMember<Door>(&Door::open).call({}, &door).take<int>(), 4);
  EXPECT_FALSE(AnyFunction::from([](const HXValue&) {}).call(parameters));
  EXPECT_EQ(errorOf([&] { AnyFunction::from(&door, &Door::swap).call(parameters); }),
            "argument 1: cannot convert int to string");
  EXPECT_EQ(errorOf([] { AnyFunction::from(&twice).call({}); }), "Invalid number of arguments: 0 given, 1 wanted");
  EXPECT_EQ(errorOf([] { AnyFunction().call({}); }), "there is no function to call");
}

}  // namespace
