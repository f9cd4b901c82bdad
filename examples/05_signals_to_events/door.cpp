// Lesson 5: signals, and events made of them.
//
// A module that has signals need not know of the memory at all. Whoever knows the module connects to them directly; for
// everybody else a line in data/hxmemory_map_signal_event.txt has the memory raise an event at each emission:
//
//     Door.opened : Door/Opened
//
// What a signal carries, none or one value, is what the event is raised with. The event is a micro-event: it has no
// history.
//
//     $ korvo run --module door --module eventlogger --console --data-dir data
//     call EventLogger listen "Door/Opened"
//     call Door open "kitchen"

#include <hxcommon/hxmodule.h>
#include <libmw/signal.h>

#include <atomic>

class Door : public HX::HXModule {
 public:
  Door(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    setModuleDescription("A door that says when it is opened and closed.");

    functionName("open", getName(), "Opens the door, if it is closed.");
    addParam("from", "The room that it is opened from.");
    bindMethod(this, &Door::open);

    functionName("close", getName(), "Closes the door, if it is open.");
    bindMethod(this, &Door::close);

    bindSignal("opened", opened);
    bindSignal("closed", closed);
  }

  void open(const std::string& from) {
    if (!isOpen_.exchange(true)) opened(from);
  }

  void close() {
    if (isOpen_.exchange(false)) closed();
  }

  mw::Signal<std::string> opened;
  mw::Signal<> closed;

 private:
  std::atomic<bool> isOpen_{false};
};

HX_MODULE(Door)
