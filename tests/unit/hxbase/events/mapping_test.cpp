#include "events_fixture.h"
#include "sitter.h"
#include "socket_folder.h"
#include "temporary_folder.h"

#include <hxbase/detail/notifierlock.h>
#include <libmw/local.h>
#include <libmw/path.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <span>
#include <thread>

namespace HX {
namespace {

namespace fs = std::filesystem;

/// A service with signals of every shape.
class Door : public mw::DynamicObject {
 public:
  Door() {
    mw::ObjectBuilder builder;
    builder.advertiseSignal("opened", opened);
    builder.advertiseSignal("closed", closed);
    builder.advertiseSignal("moved", moved);
    builder.advertiseSignal("replaced", replaced);
    setType(builder.build());
  }

  mw::Future<mw::SignalLink> metaConnect(unsigned signal, const mw::SignalSubscriber& subscriber) override {
    if (answer) return answer->future();
    if (jammed) return mw::Future<mw::SignalLink>::failed("the door is jammed");
    return DynamicObject::metaConnect(signal, subscriber);
  }

  mw::Signal<HXValue> opened;
  mw::Signal<> closed;
  mw::Signal<int, int> moved;
  mw::Signal<mw::AnyObject> replaced;
  bool jammed = false;
  std::optional<mw::Promise<mw::SignalLink>> answer;  ///< To every connection, if any.
};

/// The map file, for as long as it lives.
class MapFile {
 public:
  explicit MapFile(const std::string& content) { std::ofstream(path(), std::ios::binary) << content; }
  MapFile(const MapFile&) = delete;
  MapFile& operator=(const MapFile&) = delete;
  ~MapFile() { fs::remove_all(path()); }

  static fs::path path() {
    static const kit::TemporaryFolder folder;
    static const bool isSearched = (mw::path::prependDataDir(folder.path()), true);
    return isSearched ? folder.path() / "hxmemory_map_signal_event.txt" : fs::path();
  }
};

class Mapping : public EventsFixture {
 protected:
  std::shared_ptr<Door> offerDoor(const std::string& name = "Door") {
    auto door = std::make_shared<Door>();
    broker->session()->registerService(name, mw::AnyObject(door));
    mw::defaultLoop().drain();
    return door;
  }

  /// Begins anew with `prepare` done between the making of the broker and that of the memory.
  template <class Prepare>
  void startWith(Prepare prepare) {
    shutDown();
    broker = HXBroker::create("mapping");
    prepare();
    memory = HXModule::createModule<HXMemory>(broker, "HXMemory");
  }

  /// How often `emit` raises `event`.
  template <class Emit>
  std::size_t raisesOf(const std::string& event, Emit emit) {
    std::size_t raises = 0;
    const auto wrapper = memory->subscriber(event);
    const auto link = wrapper->signal.connect(mw::SignalSubscriber([&raises](const HXValue&) { ++raises; }));
    emit();
    wrapper->signal.disconnect(link);
    return raises;
  }
};

TEST_F(Mapping, OfAServiceThatIsThereRaisesMicroEvents) {
  const auto door = offerDoor();
  memory->addMapping("Door", "opened", "Door/Opened");
  EXPECT_EQ(memory->getDataType("Door/Opened"), STMValue::Event);
  const auto m = subscribed("M", "Door/Opened");
  door->opened(HXValue("wide"));
  EXPECT_THAT(m->values(), ElementsAre(HXValue("wide")));
  EXPECT_EQ(memory->getDataType("Door/Opened"), STMValue::MicroEvent);
  EXPECT_EQ(memory->getEventHistory("Door/Opened"), HXValue());
}

TEST_F(Mapping, AddedTwiceRaisesTwiceAndOnceForServicesThatComeBack) {
  const auto first = offerDoor();
  memory->addMapping("Door", "opened", "E");
  memory->addMapping("Door", "opened", "E");
  EXPECT_EQ(raisesOf("E", [&] { first->opened(HXValue(1)); }), 2U);
  withdraw("Door");
  const auto second = offerDoor();
  EXPECT_EQ(raisesOf("E", [&] { second->opened(HXValue(1)); }), 1U);
}

TEST_F(Mapping, OfServicesOfAnotherProcessComesBackWithTheConnection) {
  const kit::SocketFolder folder;
  mw::Session session;
  std::optional<mw::LocalServer> server(std::in_place, session, "torso");
  const auto early = std::make_shared<Door>();
  const auto late = std::make_shared<Door>();
  // There before the memory is, so that no notice of it comes while it is mapped.
  session.registerService("Early", mw::AnyObject(early));
  const mw::LocalClient joined(*broker->session(), "torso");
  std::promise<void> restored;
  const mw::Lifetime listening;
  const auto noteReturn = [&] { restored.set_value(); };
  broker->session()->connectionRestored.connect(mw::SignalSubscriber(noteReturn).track(listening.token()));
  memory->addMapping("Early", "opened", "E");
  memory->addMapping("Late", "opened", "L");
  const mw::ServiceId lateId = session.registerService("Late", mw::AnyObject(late));
  const auto awaitConnections = [&] {
    while (!early->opened.hasSubscribers() || !late->opened.hasSubscribers()) std::this_thread::yield();
    mw::defaultLoop().drain();
  };
  awaitConnections();
  server.reset();
  session.unregisterService(lateId);
  server.emplace(session, "torso");
  restored.get_future().get();
  session.registerService("Late", mw::AnyObject(late));
  awaitConnections();
  for (const auto& mapped : {std::pair("E", early), std::pair("L", late)}) {
    const auto& event = mapped.first;
    const auto& door = mapped.second;
    const auto raised = raisesOf(event, [&] {
      std::promise<void> heard;
      const auto last =
          memory->subscriber("Last")->signal.connect(mw::SignalSubscriber([&](const HXValue&) { heard.set_value(); }));
      door->opened(HXValue(1));
      // Emissions of one signal keep their order: what is heard twice is so before the next.
      broker->session()
          ->service(event == std::string("E") ? "Early" : "Late")
          .value()
          ->connect("closed", mw::SignalSubscriber([&] { memory->raiseEvent("Last", HXValue()); }))
          .value();
      door->closed();
      heard.get_future().get();
      memory->subscriber("Last")->signal.disconnect(last);
    });
    EXPECT_EQ(raised, 1U) << event;
  }
}

TEST_F(Mapping, OfAServiceThatDoesNotAnswerHoldsUpNoOther) {
  const auto usual = NotifierLock::patience();
  NotifierLock::setPatience(std::chrono::milliseconds(1));
  const kit::CaptureLog log({"hxmemory"});
  memory->addMapping("Silent", "opened", "S");
  memory->addMapping("Door", "opened", "E");
  const auto silent = std::make_shared<Door>();
  silent->answer.emplace();
  broker->session()->registerService("Silent", mw::AnyObject(silent));
  const auto door = offerDoor();
  EXPECT_EQ(raisesOf("E", [&] { door->opened(HXValue(1)); }), 1U);
  EXPECT_EQ(memory->getDataType("S"), STMValue::Event);
  silent->answer->setError("no room");
  mw::defaultLoop().drain();
  EXPECT_THAT(log.texts(), ElementsAre("the mapping of Silent.opened to S waits for the service to answer",
                                       "HXMemory mapping failed for Silent.opened to S: no room"));
  EXPECT_ANY_THROW(memory->getDataType("S"));
  NotifierLock::setPatience(usual);
}

TEST_F(Mapping, RaisesOnceForAServiceThatRestartsWhileNoticesWait) {
  memory->addMapping("Door", "opened", "E");
  std::shared_ptr<Door> door;
  {
    const mw::Session::NoticeHold hold(*broker->session());
    for (int restart = 0; restart < 3; ++restart) {
      leave("Door");
      door = std::make_shared<Door>();
      broker->session()->registerService("Door", mw::AnyObject(door));
    }
  }
  mw::defaultLoop().drain();
  EXPECT_EQ(raisesOf("E", [&] { door->opened(HXValue(1)); }), 1U);
}

TEST_F(Mapping, OfTheSameSignalReplacesTheEventForServicesToCome) {
  const kit::CaptureLog log({"hxmemory"});
  memory->addMapping("Door", "opened", "old");
  memory->addMapping("Door", "opened", "new");
  EXPECT_EQ(memory->xGetSTMValue("new"), nullptr);
  const auto door = offerDoor();
  EXPECT_THAT(log.entries(), IsEmpty());
  EXPECT_EQ(raisesOf("new", [&] { door->opened(HXValue(1)); }), 1U);
  EXPECT_EQ(memory->xGetSTMValue("old"), nullptr);
}

TEST_F(Mapping, OfSeveralSignalsIsAppliedInTheirOrder) {
  const auto bookkeeper = subscribed("bookkeeper", Memory::keyAddedKey);
  offerDoor();
  memory->addMapping("Door", {{"opened", "second"}, {"closed", "first"}, {"squeaked", "none"}});
  EXPECT_THAT(bookkeeper->values(), ElementsAre(HXValue("first"), HXValue("second")));
}

TEST_F(Mapping, TakesTheValueOfTheSignal) {
  const auto door = offerDoor();
  memory->addMapping("Door", {{"opened", "E"}, {"closed", "E"}, {"moved", "E"}, {"replaced", "E"}});
  const auto m = subscribed("M");
  const kit::CaptureLog log({"hxmemory", "mw.signal"});
  door->opened(HXValue(1));
  door->closed();
  EXPECT_THAT(m->values(), ElementsAre(HXValue(1), HXValue()));
  door->moved(1, 2);
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Error, "hxmemory", "onSignalReceived",
                                               "Event E was triggered by a signal with more than one argument"}));
  door->replaced(mw::AnyObject(door));
  EXPECT_EQ(m->values().size(), 2U);
  EXPECT_EQ(log.entries().size(), 2U) << "the signal's owner is told that there is no value in an object";
  const mw::AnyObject object;
  EXPECT_THROW(memory->onSignalReceived("E", {mw::AnyReference::of(object)}), mw::ConversionError);
}

TEST_F(Mapping, OfAMissingSignalDeclaresNothing) {
  const kit::CaptureLog log({"hxmemory"});
  memory->addMapping("Door", "squeaked", "E");
  offerDoor();
  memory->addMapping("Door", "squeaked", "E");
  const std::string text = "Signal Door.squeaked does not exist";
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "hxmemory", "declareEventsFromService", text},
                                         Entry{mw::LogLevel::Warning, "hxmemory", "addMapping", text}));
  EXPECT_EQ(memory->xGetSTMValue("E"), nullptr);
}

TEST_F(Mapping, ThatCannotBeConnectedRemovesTheEventAndIsKept) {
  const auto jammed = std::make_shared<Door>();
  jammed->jammed = true;
  broker->session()->registerService("Door", mw::AnyObject(jammed));
  mw::defaultLoop().drain();
  {
    const kit::CaptureLog log({"hxmemory"});
    memory->addMapping("Door", "opened", "E");
    memory->declareEventsFromService("Door", {{"closed", "F"}, {"squeaked", "G"}, {"moved", "H"}});
    const auto error = mw::LogLevel::Error;
    const std::string function = "declareEventsFromService";
    EXPECT_THAT(
        log.entries(),
        ElementsAre(
            Entry{error, "hxmemory", "addMapping", "HXMemory mapping failed for Door.opened to E: the door is jammed"},
            Entry{error, "hxmemory", function, "HXMemory mapping failed for Door.closed to F: the door is jammed"},
            Entry{error, "hxmemory", function, "HXMemory mapping failed for Door.moved to H: the door is jammed"},
            Entry{mw::LogLevel::Warning, "hxmemory", function, "Signal Door.squeaked does not exist"}));
  }
  EXPECT_THAT(memory->getEventList(), testing::Not(testing::Contains(testing::AnyOf("E", "F", "G", "H"))));
  withdraw("Door");
  const auto door = offerDoor();
  EXPECT_EQ(raisesOf("E", [&] { door->opened(HXValue(1)); }), 1U);
}

TEST_F(Mapping, OfAnObjectThatIsNullIsAnError) {
  broker->session()->setResolver([](const std::string&) { return mw::Future<mw::AnyObject>::ready(mw::AnyObject()); });
  EXPECT_EQ(errorOf([&] { memory->addMapping("Door", "opened", "E"); }), "This object is null");
  EXPECT_EQ(errorOf([&] { memory->declareEventsFromService("Door", {{"opened", "E"}}); }), "This object is null");
  EXPECT_NO_THROW(memory->declareEventsFromService("Door", {}));
}

TEST_F(Mapping, IsRefusedToASubscriberThatRunsWhileAnotherIsApplied) {
  std::string refusal;
  subscribed("bookkeeper", Memory::keyAddedKey)->react = [&](const auto&) {
    refusal = errorOf([&] { memory->addMapping("Other", "signal", "F"); });
  };
  memory->addMapping("Door", "opened", "E");
  offerDoor();
  EXPECT_EQ(refusal, "a mapping cannot be added while one is being applied on the same thread");
  EXPECT_NO_THROW(memory->addMapping("Other", "signal", "F")) << "later it may";
}

TEST_F(Mapping, DoesNothingMoreWhenTheMemoryHasGone) {
  const auto door = offerDoor();
  memory->addMapping("Door", "opened", "E");
  shutDown();
  door->opened(HXValue(1));
  EXPECT_FALSE(door->opened.hasSubscribers());
}

TEST_F(Mapping, LetsTheMemoryGoOnlyWhenItsEventsHaveBeenRaised) {
  const auto door = offerDoor();
  memory->addMapping("Door", "opened", "E");
  kit::Sitter sitter;
  std::size_t there = 0;
  memory->subscriber("E")->signal.connect(mw::SignalSubscriber([&, used = memory.get()](const HXValue&) {
    sitter.sit();
    there = used->getDataList("E").size();
  }));
  auto raising = std::async(std::launch::async, [&] { door->opened(HXValue(1)); });
  sitter.awaitEntry();
  auto going = std::async(std::launch::async, [this] { shutDown(); });
  EXPECT_EQ(going.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  sitter.release();
  raising.get();
  going.get();
  EXPECT_EQ(there, 1U) << "it is whole until then";
}

TEST_F(Mapping, MayEndTheMemoryByItsOwnEvent) {
  const auto door = offerDoor();
  memory->addMapping("Door", "opened", "E");
  memory->subscriber("E")->signal.connect(mw::SignalSubscriber([this](const HXValue&) { shutDown(); }));
  memory->subscribeToEvent("E", "nobody", "cb");
  door->opened(HXValue(1));
  EXPECT_EQ(memory, nullptr);
}

TEST_F(Mapping, FromTheFileIsAppliedTwiceToAServiceThatIsThereAndOnceToOneThatComes) {
  const MapFile file("Door.opened : E\n");
  std::shared_ptr<Door> door;
  startWith([&] { door = offerDoor(); });
  EXPECT_EQ(raisesOf("E", [&] { door->opened(HXValue(1)); }), 2U);
  start();
  door = offerDoor();
  EXPECT_EQ(raisesOf("E", [&] { door->opened(HXValue(1)); }), 1U);
}

TEST_F(Mapping, IsNotLostForServicesThatRegisterDuringTheConstruction) {
  const MapFile file("Early.opened : E\nProbe.opened : F\n");
  std::shared_ptr<Door> early;
  std::optional<mw::Session::CatchUp> catchUp;
  int probes = 0;
  startWith([&] {
    catchUp.emplace(*broker->session());  // As for the loading of a library.
    broker->session()->setResolver([&](const std::string& name) {
      // The second look-up of "Probe" is that of the pass over all services, which has left "Early" behind by then.
      if (name == "Probe" && ++probes == 2) {
        std::thread([&] {
          early = std::make_shared<Door>();
          broker->session()->registerService("Early", mw::AnyObject(early));
        }).join();
      }
      return mw::Future<mw::AnyObject>::failed("no service named " + name);
    });
  });
  ASSERT_NE(early, nullptr);
  catchUp.reset();
  mw::defaultLoop().drain();
  EXPECT_EQ(raisesOf("E", [&] { early->opened(HXValue(1)); }), 1U);
}

TEST_F(Mapping, FileMayBeMissingOrADirectoryOrUnreadable) {
  const std::function<void()> obstacles[] = {[] { fs::remove(MapFile::path()); },
                                             [] { fs::remove(MapFile::path()), fs::create_directory(MapFile::path()); },
                                             [] { fs::permissions(MapFile::path(), fs::perms::none); }};
  // Root may read everything.
  for (const auto& obstruct : std::span(obstacles).first(::geteuid() == 0 ? 2 : 3)) {
    const kit::CaptureLog log({"hxmemory"});
    const MapFile file("Door.opened : E\n");
    obstruct();
    start();
    EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "hxmemory", "loadSignalEventMapFromFile",
                                                 "Can't not open file hxmemory_map_signal_event.txt"}));
  }
}

TEST_F(Mapping, FileIsReadInPiecesAndWhatIsNoMappingSkippedWithoutAWord) {
  constexpr std::size_t kPiece = 511;
  const std::string begin = "Door.opened:";
  const std::string name(5000, 'e');
  std::vector<std::pair<std::string, std::vector<std::string>>> rows{
      {"# a comment\n\nnonsense\nDoor.op : short\r\nDoor.opened : E # comment\r\nDoor.closed:F", {"E", "F"}},
      {"#" + std::string(kPiece - 1, ' ') + "Door.opened:E\n", {"E"}}};
  for (const std::size_t length : {kPiece - 1, kPiece, kPiece + 1, name.size()}) {
    rows.push_back({begin + name.substr(begin.size(), length - begin.size()) + "\nDoor.closed:F\n",
                    {"F", name.substr(begin.size(), std::min(length, kPiece) - begin.size())}});
  }
  for (const auto& [content, events] : rows) {
    const kit::CaptureLog log({"hxmemory"});
    const MapFile file(content);
    start();
    offerDoor();
    EXPECT_THAT(log.entries(), IsEmpty());
    auto all = memory->getEventList();
    std::erase_if(all, [](const std::string& event) { return event.starts_with("HXMemory/"); });
    EXPECT_EQ(all, events);
  }
}

}  // namespace
}  // namespace HX
