#include "batch.h"
#include "connection.h"
#include "errors.h"
#include "follower.h"
#include "future.h"
#include "hosting.h"
#include "interpreter.h"
#include "logqueue.h"
#include "object.h"
#include "values.h"
#include "viewer.h"

#include <libmw/local.h>

#include <pybind11/stl.h>

/// The extension `korvo._native`. Users see what the Python files beside it make of it.

namespace {

using namespace korvo::python;
using pybind11::arg;

void install(const py::dict& kinds) {
  Kinds& all = Kinds::instance();
  all.float32 = kinds["Float32"];
  all.int64 = kinds["Int64"];
  all.object = kinds["Object"];
  all.change = kinds["Change"];
  all.viewStates = py::tuple(kinds["view_states"]);
  all.callbacks = kinds["callbacks"];
  all.errorOf = kinds["error_of"];
  all.fieldsOf = kinds["fields_of"];
}

}  // namespace

PYBIND11_MODULE(_native, native) {
  prepareInterpreter();
  registerErrors();
  native.def("install", install);
  native.def("end", [] { endInterpreter(Connection::closeAll); });
  native.def("is_ending", isEnding);
  native.def(
      "take_log", [](std::optional<double> limit) { return LogQueue::instance().take(limit); }, arg("timeout"));
  native.def(
      "begin_log", [](std::optional<int> level) { LogQueue::instance().begin(level); }, arg("level"));
  native.def("end_log", [] { withoutGil([] { LogQueue::instance().end(); }); });
  native.def("running_brokers", [] { return withoutGil(mw::runningBrokers); });

  py::class_<PendingResult, Held<PendingResult>>(native, "Future")
      .def("done", &PendingResult::isDone)
      .def("cancelled", &PendingResult::isCancelled)
      .def("cancel", &PendingResult::cancel)
      .def("result", &PendingResult::result, arg("timeout"))
      .def("exception", &PendingResult::exception, arg("timeout"))
      .def("notify", &PendingResult::notify, arg("callback"));

  py::class_<NativeBatch, Held<NativeBatch>>(
      native, "Batch",
      R"(While one is entered, what its thread starts leaves in one go, and costs less than half:

    with korvo.Batch():
        joints = [arm.joint.start(i) for i in range(6)]
    print([joint.result() for joint in joints])

It leaves at the end, when the thread waits for the robot, by `flush`, and two milliseconds after the first of it at the
latest. The order stays. One thread at a time uses it.)")
      .def(py::init([] { return Held<NativeBatch>(new NativeBatch); }))
      .def("flush", &NativeBatch::flush, "Sends what has collected.")
      .def("__enter__",
           [](py::object self) {
             self.cast<NativeBatch&>().begin();
             return self;
           })
      .def("__exit__", [](NativeBatch& self, const py::args&) { self.end(); });

  py::class_<NativeObject, Held<NativeObject>>(native, "Object")
      .def_property_readonly("name", &NativeObject::name)
      .def_property_readonly("number", &NativeObject::number)
      .def("is_same", &NativeObject::isSame, arg("other"))
      .def("describe", &NativeObject::describe)
      .def("call", &NativeObject::call, arg("method"), arg("arguments"), arg("timeout"))
      .def("start", &NativeObject::start, arg("method"), arg("arguments"))
      .def("emit", &NativeObject::emit, arg("signal"), arg("arguments"))
      .def("connect", &NativeObject::connect, arg("signal"), arg("callback"))
      .def("disconnect", &NativeObject::disconnect, arg("link"))
      .def("property", &NativeObject::property, arg("name"), arg("timeout"))
      .def("set_property", &NativeObject::setProperty, arg("name"), arg("value"), arg("timeout"));

  py::class_<HostedModule, Held<HostedModule>>(native, "HostedModule")
      .def("emit", &HostedModule::emit, arg("signal"), arg("arguments"))
      .def("sleep", &HostedModule::sleep, arg("seconds"))
      .def("close", &HostedModule::close);

  py::class_<Follower, Held<Follower>>(native, "Follower")
      .def("take", &Follower::take, arg("timeout"))
      .def("file", &Follower::file)
      .def("end", &Follower::end);

  py::class_<SeenValue>(
      native, "Seen",
      R"(What a view or a stream saw. It unpacks as `value, age, revision, state`, the value None where there is none.)")
      .def_property_readonly("value", &SeenValue::value, "The value. Raises what the state says, unless it is PRESENT.")
      .def_property_readonly("last", &SeenValue::last,
                             "What was seen last, whatever has become of it, for display; None when there was nothing.")
      .def_property_readonly("state", &SeenValue::state, "A `ViewState`.")
      .def_property_readonly("revision", &SeenValue::revision,
                             "Rises with every write of the key; begins anew with a broker that was restarted.")
      .def_property_readonly("age", &SeenValue::age,
                             "How many seconds ago it was written, asked for now; or since when there is no value.")
      .def_property_readonly("is_reconnected", &SeenValue::isReconnected,
                             "Whether the broker went and came back since what was seen before.")
      .def("is_fresh", &SeenValue::isFresh, arg("limit"),
           "Whether there is a value, no older than `limit` seconds now, and the broker runs that would have written a "
           "newer one.")
      .def("__iter__", &SeenValue::parts)
      .def("__repr__", &SeenValue::text);

  py::class_<NativeView, Held<NativeView>>(native, "View")
      .def("read", &NativeView::read)
      .def("alive", &NativeView::isAlive, arg("limit"))
      .def("wait", &NativeView::wait, arg("revision"), arg("timeout"));

  py::class_<NativeStream, Held<NativeStream>>(native, "Stream")
      .def("next", &NativeStream::next, arg("timeout"))
      .def_property_readonly("lost", &NativeStream::lost);

  py::class_<Connection, Held<Connection>>(native, "Connection")
      .def(py::init([](const std::string& broker) { return Held<Connection>(new Connection(broker)); }), arg("broker"))
      .def_property_readonly("broker", &Connection::broker)
      .def_property_readonly("is_connected", &Connection::isConnected)
      .def("service", &Connection::service, arg("name"), arg("timeout"))
      .def("services", &Connection::services, arg("timeout"))
      .def("notify", &Connection::notify, arg("callback"))
      .def("host", &Connection::host, arg("description"))
      .def("follow", &Connection::follow, arg("wanted"))
      .def("view", &Connection::view, arg("key"), arg("capacity"), arg("alive_within"))
      .def("stream", &Connection::stream, arg("key"), arg("depth"), arg("capacity"), arg("alive_within"))
      .def("close", &Connection::close);
}
