#include "expect_error.h"
#include "print_value.h"

#include <hxcommon/hxproxy.h>
#include <libmw/dynamicobject.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXProxy;
using HX::HXValue;
using mw::AnyFunction;
using testing::ElementsAre;
using testing::HasSubstr;

class Notifications : public testing::Test {
 protected:
  /// A subscriber with the methods that `bind(name, callable)` was given, after two others if it is `shifted`.
  template <class Bind>
  HXProxy subscriber(Bind&& bind, bool shifted = false) {
    mw::ObjectBuilder builder;
    builder.setTypeName("Ear");
    const auto add = [&](const char* name, auto callable) {
      builder.advertiseMethod(mw::MetaMethodBuilder(name, "Ear", ""), AnyFunction::from(callable));
    };
    for (const char* other : {"another", "yetAnother"}) {
      if (shifted) add(other, [this] { heard.emplace_back("the wrong method"); });
    }
    bind(add);
    return {mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)), "Ear"};
  }

  auto hear() {
    return [this](const std::string& key, const HXValue& value, const HXValue& message) {
      heard.push_back(key + "=" + value.toString() + "/" + message.toString());
    };
  }

  std::vector<std::string> heard;
  HXProxy::CallState state{0, 0};
};

TEST_F(Notifications, RememberTheMethodTheyFound) {
  const auto ear = subscriber([&](auto add) { add("hear", hear()); });
  ear.pCallNotify("hear", "key", 1, "message", &state);
  const auto found = state;
  EXPECT_EQ(found, HXProxy::CallState(1, ear.asObject()->metaObject().uid()));
  ear.pCallNotify("hear", "key", 2.5F, HXValue(), &state);
  EXPECT_EQ(state, found);
  EXPECT_THAT(heard, ElementsAre("key=1/\"message\"", "key=2.5/null"));
}

// A subscriber that was restarted may have its methods elsewhere, and the kept number would be another method's.
TEST_F(Notifications, NoticeAChangedTarget) {
  const auto before = subscriber([&](auto add) { add("hear", hear()); });
  const auto after = subscriber([&](auto add) { add("hear", hear()); }, true);
  before.pCallNotify("hear", "a", 1, 0, &state);
  after.pCallNotify("hear", "b", 2, 0, &state);
  EXPECT_EQ(state.first, 3);
  before.pCallNotify("hear", "c", 3, 0, &state);
  EXPECT_THAT(heard, ElementsAre("a=1/0", "b=2/0", "c=3/0"));
}

TEST_F(Notifications, ChooseAmongOverloadsEachTime) {
  const auto ear = subscriber([&](auto add) {
    add("hear", hear());
    add("hear", [this](const std::string&, int, const HXValue&) { heard.emplace_back("int"); });
  });
  for (const HXValue& value : {HXValue(1), HXValue("x"), HXValue(2)}) ear.pCallNotify("hear", "a", value, 0, &state);
  EXPECT_EQ(state, HXProxy::CallState(0, 0));
  EXPECT_THAT(heard, ElementsAre("int", "a=\"x\"/0", "int"));
}

TEST_F(Notifications, NameWhatIsMissing) {
  const auto ear = subscriber([&](auto add) { add("hear", [](const std::string&, int, const HXValue&) {}); });
  const auto failure = [&](const char* method) {
    return errorOf([&] { ear.pCallNotify(method, "a", "x", 0, &state); });
  };
  EXPECT_EQ(failure("listen"), "Ear.listen: no such method");
  EXPECT_THAT(failure("hear"), HasSubstr("Ear.hear(string, String, Int)"));
  ear.pCallNotify("hear", "a", 1, 0, &state);
  EXPECT_THAT(failure("hear"), HasSubstr("argument 2: cannot convert")) << "also once the method is known";
  const HXProxy nobody(mw::AnyObject(), "Nobody");
  EXPECT_EQ(errorOf([&] { nobody.pCallNotify("hear", "a", 1, 0, &state); }), "This object is null");
  EXPECT_EQ(errorOf([&] { nobody.call("hear"); }), "This object is null");
}

TEST_F(Notifications, PassTheFailuresOfTheCallback) {
  const auto ear = subscriber([&](auto add) {
    add("hear", [](const std::string&, const HXValue&, const HXValue&) { throw std::out_of_range("deaf"); });
  });
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW(ear.pCallNotify("hear", "a", 1, 0, &state), std::out_of_range);
  }
}

}  // namespace
