#include "publisher.h"

#include "listener.h"
#include "memory_fixture.h"
#include "print_value.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace telemetry {
namespace {

using HX::HXValue;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;

class PublishedReadings : public kit::MemoryFixture {
 protected:
  void TearDown() override {
    subscribers.reset();
    MemoryFixture::TearDown();
  }

  void SetUp() override {
    MemoryFixture::SetUp();
    broker->session()->registerService("Display", mw::AnyObject(display));
    display->react = [](const auto& heard) {
      if (heard.value == HXValue(13.0)) throw std::logic_error("unlucky");
    };
  }

  /// Has the display subscribe in the memory, and the publisher know of it as if the memory had told an extractor.
  void subscribe(const std::string& event) {
    // Not as to an event, for which the memory would turn to an extractor that is not there.
    memory->subscribeToMicroEvent(event, "Display", "", "heard");
    subscribers->add("Display" + event);
  }

  Publisher makePublisher() {
    subscribers.emplace(broker->session(), "Extractor");
    return {HX::HXMemoryProxy(generic), *subscribers};
  }

  /// Which event the display was told of, with which value.
  std::vector<std::pair<std::string, HXValue>> told() const {
    std::vector<std::pair<std::string, HXValue>> all;
    for (const auto& heard : display->notifications()) all.emplace_back(heard.key, heard.value);
    return all;
  }

  const std::shared_ptr<kit::Listener> display = kit::Listener::make();
  std::optional<HX::Subscribers> subscribers;
};

TEST_F(PublishedReadings, AreDataWithADescriptionAndEventsOfTheExtractorWhereTheyMove) {
  makePublisher().publish({{"Uptime", 12.5, "s"},
                           {"Processor/Load", 0.5, "ratio"},
                           {"Temperature/Zone0", 40, "°C"},
                           {"Network/eth0/Received", 9, "bytes/s"},
                           {"Memory/Total", 4096, "bytes"}});
  EXPECT_EQ(memory->getData("Host/Uptime"), HXValue(12.5));
  EXPECT_EQ(memory->getData("Host/Processor/Load"), HXValue(0.5));
  EXPECT_EQ(memory->getStrDataType("Host/Processor/Load"), "Data");
  EXPECT_EQ(memory->getDescriptionList({"Host/Uptime"})[1],
            HXValue::list({"Host/Uptime", "data", "Time since the machine was started, s"}));
  EXPECT_THAT(memory->getExtractorEvent("Extractor"),
              UnorderedElementsAre("Host/Sampled/Processor/Load", "Host/Sampled/Temperature/Zone0",
                                   "Host/Sampled/Network/eth0/Received"));
}

TEST_F(PublishedReadings, AreRaisedOnlyWhileSomebodyIsSubscribed) {
  auto publisher = makePublisher();
  publisher.publish({{"Memory/Used", 0.1, "ratio"}, {"Processor/Load", 0.1, "ratio"}});
  subscribe("Host/Sampled/Memory/Used");
  publisher.publish({{"Memory/Used", 0.2, "ratio"}, {"Processor/Load", 0.2, "ratio"}});
  publisher.publish({{"Memory/Used", 0.2, "ratio"}, {"Processor/Load", 0.2, "ratio"}});
  subscribers->remove("DisplayHost/Sampled/Memory/Used");
  publisher.publish({{"Memory/Used", 0.3, "ratio"}, {"Processor/Load", 0.3, "ratio"}});

  EXPECT_THAT(told(), ElementsAre(Pair("Host/Sampled/Memory/Used", 0.2), Pair("Host/Sampled/Memory/Used", 0.2)));
  EXPECT_EQ(memory->getEventHistory("Host/Sampled/Processor/Load"), HXValue());
}

TEST_F(PublishedReadings, AreRaisedForThoseWhoSubscribedBeforeTheExtractorCame) {
  memory->subscribeToEvent("Host/Sampled/Memory/Used", "Display", "heard");
  makePublisher().publish({{"Memory/Used", 0.5, "ratio"}});
  EXPECT_THAT(told(), ElementsAre(Pair("Host/Sampled/Memory/Used", 0.5)));
}

TEST_F(PublishedReadings, AreRaisedAlsoWhenASubscriberFails) {
  auto publisher = makePublisher();
  subscribe("Host/Sampled/Disk/a/Read");
  subscribe("Host/Sampled/Disk/b/Read");
  // The memory keeps quiet of what goes wrong with the first notification.
  publisher.publish({{"Disk/a/Read", 1, "bytes/s"}, {"Disk/b/Read", 1, "bytes/s"}});
  EXPECT_THROW(publisher.publish({{"Disk/a/Read", 13, "bytes/s"}, {"Disk/b/Read", 2, "bytes/s"}}), std::logic_error);
  EXPECT_EQ(told().back(), std::pair(std::string("Host/Sampled/Disk/b/Read"), HXValue(2.0)));
}

}  // namespace
}  // namespace telemetry
