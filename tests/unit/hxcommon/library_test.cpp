#include "capture_log.h"
#include "end_broker.h"
#include "expect_error.h"

#include <hxcommon/hxbroker.h>

#include <cstdlib>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXBroker;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kFixtures = KORVO_TEST_FIXTURES;  // The folder of the libraries beside this file.

class ModuleLibraries : public testing::Test {
 protected:
  ModuleLibraries() { ::setenv("KORVO_MODULE_PATH", ("/nowhere::" + kFixtures).c_str(), 1); }
  void TearDown() override {
    if (broker) kit::endBroker(*broker);
  }

  std::string failureOf(const std::string& library) {
    return errorOf([&] { broker->loadModule(library); });
  }

  std::shared_ptr<HXBroker> broker = HXBroker::create("libraries");
};

TEST_F(ModuleLibraries, AreFoundByNameAndByPath) {
  broker->loadModule("hxcommon_good");
  EXPECT_THAT(broker->modules(), ElementsAre("Good"));
  EXPECT_EQ(broker->getProxy("Good")->call<int>("answer"), 42);
  const auto other = HXBroker::create("other");
  other->loadModule(kFixtures + "/libhxcommon_good.so");
  EXPECT_EQ(other->getProxy("Good")->call<int>("answer"), 42);
}

TEST_F(ModuleLibraries, ThatCannotBeLoadedAreNamedWithTheReason) {
  EXPECT_THAT(failureOf("hxcommon_nowhere"),
              testing::AllOf(HasSubstr("hxcommon_nowhere"), HasSubstr("not found in"), HasSubstr(kFixtures)));
  EXPECT_EQ(failureOf("/no/such/file.so"), "module library /no/such/file.so: no such file");
  EXPECT_THAT(failureOf(kFixtures + "/not_a_library.so"), HasSubstr("not_a_library.so"));
  EXPECT_THAT(failureOf(kFixtures), HasSubstr(kFixtures)) << "a folder";
  EXPECT_THAT(failureOf("hxcommon_bare"), HasSubstr("it has no entry point _createModule"));
  EXPECT_THAT(failureOf(""), HasSubstr("module library"));
  EXPECT_THAT(broker->modules(), ElementsAre());
}

TEST_F(ModuleLibraries, ThatFailAreTakenOutAgain) {
  broker->loadModule("hxcommon_good");
  EXPECT_THAT(failureOf("hxcommon_good"), HasSubstr("Good")) << "the name is taken";
  EXPECT_THAT(failureOf("hxcommon_stubborn"), HasSubstr("libhxcommon_stubborn.so: out of luck"));
  EXPECT_THAT(broker->modules(), ElementsAre("Good"));
  const auto odd = HXBroker::create("odd");
  EXPECT_THAT(errorOf([&] { odd->loadModule("hxcommon_stubborn"); }), HasSubstr("unknown exception"));
}

TEST_F(ModuleLibraries, ThatFailToCloseDoNotKeepTheBroker) {
  const kit::CaptureLog errors({"hxcommon.broker"});
  const auto content = HXBroker::create("content");
  content->loadModule("hxcommon_stubborn");
  EXPECT_THAT(content->modules(), ElementsAre("Stubborn"));
  content->shutdown();
  ASSERT_EQ(errors.entries().size(), 1U);
  EXPECT_THAT(errors.texts().front(), testing::AllOf(HasSubstr("libhxcommon_stubborn.so"), HasSubstr("no way out")));
}

}  // namespace
