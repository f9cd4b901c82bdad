#include "connection.h"

#include "errors.h"
#include "values.h"

#include <hxcommon/hxbroker.h>
#include <libmw/remoteerror.h>
#include <libmw/session.h>

#include <algorithm>
#include <atomic>
#include <pybind11/stl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo::python {

/// Used without the GIL.
class Connection::Joined {
 public:
  explicit Joined(const std::string& name)
      : own_(HX::HXBroker::create(fmt::format("python-{}-{}", ::getpid(), ++counted()))),
        client_(std::make_unique<mw::LocalClient>(*own_->session(), name)),
        name_(client_->broker()) {}
  Joined(const Joined&) = delete;
  Joined& operator=(const Joined&) = delete;
  ~Joined() { close(); }

  const std::string& name() const { return name_; }
  bool isConnected() const {
    const std::lock_guard lock(mutex_);
    return client_ && client_->isConnected();
  }

  /// The broker of this process, which hosts its modules.
  /// @throws mw::ConnectionLostError once it is closed.
  const std::shared_ptr<HX::HXBroker>& own() const {
    if (closed_) throw mw::ConnectionLostError(fmt::format("the connection to broker {} is closed", name_));
    return own_;
  }

  /// Ends it before the connection is closed; at once when that is so.
  void endWithThis(const std::shared_ptr<Endable>& one) {
    {
      const std::lock_guard lock(mutex_);
      std::erase_if(ending_, [](const auto& known) { return known.expired(); });
      ending_.push_back(one);
    }
    if (closed_) one->end();
  }

  void close() {
    if (closed_.exchange(true)) return;
    std::vector<std::weak_ptr<Endable>> all;
    {
      const std::lock_guard lock(mutex_);
      all.swap(ending_);
    }
    for (const auto& weak : all) {
      if (const auto one = weak.lock()) one->end();
    }
    own_->session()->connectionLost.disconnectAll();
    own_->session()->connectionRestored.disconnectAll();
    own_->shutdown();
    std::unique_ptr<mw::LocalClient> client;
    {
      const std::lock_guard lock(mutex_);
      client = std::move(client_);
    }
  }

 private:
  static std::atomic<unsigned>& counted() {
    static std::atomic<unsigned> count{0};
    return count;
  }

  const std::shared_ptr<HX::HXBroker> own_;
  mutable std::mutex mutex_;  // Guards `client_`, which goes without it, and `ending_`.
  std::unique_ptr<mw::LocalClient> client_;
  std::vector<std::weak_ptr<Endable>> ending_;
  const std::string name_;
  std::atomic<bool> closed_{false};
};

namespace {

/// All connections, for the end of the interpreter.
template <class T>
struct All {
  static All& instance() {
    static auto* const the = new All;
    return *the;
  }

  void add(const std::shared_ptr<T>& one) {
    const std::lock_guard lock(mutex);
    std::erase_if(ones, [](const auto& known) { return known.expired(); });
    ones.push_back(one);
  }

  std::mutex mutex;  // Guards `ones`.
  std::vector<std::weak_ptr<T>> ones;
};

/// @param seconds  Since the epoch; what lies beyond all times is the nearest one.
HX::journal::TimePoint timeOf(double seconds) {
  constexpr double kLatest = 9e9;  // Nanoseconds have 64 bits.
  const std::chrono::duration<double> time(seconds > 0 ? std::min(seconds, kLatest) : 0.0);
  return HX::journal::TimePoint(std::chrono::duration_cast<std::chrono::nanoseconds>(time));
}

}  // namespace

Connection::Connection(const std::string& broker) {
  requireUsable();
  beginUse();
  joined_ = withoutGil([&] { return std::make_shared<Joined>(broker); });
  All<Joined>::instance().add(joined_);
}

Connection::~Connection() { joined_->close(); }

std::string Connection::broker() const { return joined_->name(); }
bool Connection::isConnected() const {
  return !isForked() && withoutGil([this] { return joined_->isConnected(); });
}

std::unique_ptr<NativeObject, Release> Connection::service(const std::string& name, std::optional<double> limit) const {
  requireUsable();
  const Limit within(limit);
  auto answer = withoutGil([&] { return joined_->own()->session()->service(name); });
  const std::string whom = "broker " + joined_->name();
  const bool found = waitWhile(
      within, [&](std::chrono::milliseconds longest) { return answer.wait(longest) != mw::FutureState::Running; });
  if (!found) throwTimeout(whom, "where service " + name + " is", within.seconds());
  try {
    return std::unique_ptr<NativeObject, Release>(new NativeObject(answer.value(), name, whom));
  } catch (const mw::FutureError& error) {
    throw mw::NoSuchServiceError(error.what());
  }
}

std::vector<std::string> Connection::services(std::optional<double> limit) const {
  requireUsable();
  const Limit within(limit);
  auto answer = withoutGil([&] { return joined_->own()->session()->reachableServices(); });
  const bool answered = waitWhile(
      within, [&](std::chrono::milliseconds longest) { return answer.wait(longest) != mw::FutureState::Running; });
  if (!answered) throwTimeout("broker " + joined_->name(), "which services there are", within.seconds());
  std::vector<std::string> names;
  for (const auto& service : answer.value()) names.push_back(service.name);
  return names;
}

void Connection::notify(std::int64_t callback) const {
  requireUsable();
  const auto tell = [callback](const char* kind, const std::string& text) {
    intoPython("what is told of the connection", [&] {
      const py::tuple arguments = py::make_tuple(kind, text);
      if (PyObject* const returned = callNumbered(callback, arguments.ptr())) {
        Py_DECREF(returned);
      } else if (PyErr_Occurred()) {
        PyErr_WriteUnraisable(nullptr);
      }
    });
  };
  withoutGil([&] {
    mw::Session& session = *joined_->own()->session();
    session.connectionLost.connect(mw::SignalSubscriber([tell](const std::string& reason) { tell("lost", reason); }));
    session.connectionRestored.connect(mw::SignalSubscriber([tell] { tell("restored", ""); }));
    session.serviceRegistered.connect(
        mw::SignalSubscriber([tell](mw::ServiceId, const std::string& name) { tell("registered", name); }));
    session.serviceUnregistered.connect(
        mw::SignalSubscriber([tell](mw::ServiceId, const std::string& name) { tell("unregistered", name); }));
  });
}

std::unique_ptr<HostedModule, Release> Connection::host(const py::dict& description) const {
  requireUsable();
  const auto described = ModuleDescription::from(description);
  return withoutGil([&] {
    const auto module = HX::HXModule::createModule<PythonModule>(joined_->own(), described.name, described);
    return std::unique_ptr<HostedModule, Release>(new HostedModule(module));
  });
}

std::unique_ptr<Follower, Release> Connection::follow(const py::dict& wanted) const {
  requireUsable();
  Wanted what;
  for (const py::handle pattern : wanted["patterns"]) what.patterns.push_back(toValue(pattern).asString());
  what.rate = wanted["rate"].cast<double>();
  what.snapshot = wanted["snapshot"].cast<bool>();
  what.capacity = wanted["capacity"].cast<std::size_t>();
  const py::object since = wanted["since"];
  std::optional<HX::journal::TimePoint> from;
  if (py::isinstance<py::float_>(since)) {
    from = timeOf(since.cast<double>());
  } else if (!since.is_none()) {
    const auto [epoch, revision] = since.cast<std::pair<std::uint64_t, std::uint64_t>>();
    what.since = HX::journal::Position{epoch, revision};
  }
  auto made = withoutGil([&] {
    if (from) what.since = HX::changesAt(joined_->own(), *from);
    std::unique_ptr<Follower, Release> follower(new Follower(joined_->own(), what));
    joined_->endWithThis(follower->ending());
    return follower;
  });
  // What is written from now on is to be told change by change. A connection that is lost meanwhile is no reason to
  // wait.
  constexpr std::chrono::milliseconds kBetweenLooks{100};
  waitWhile(Limit({}), [&](std::chrono::milliseconds longest) {
    return made->waitForBeginning(std::min(longest, kBetweenLooks)) || !joined_->isConnected();
  });
  return made;
}

std::unique_ptr<NativeView, Release> Connection::view(const std::string& key, std::size_t capacity,
                                                      double aliveWithin) const {
  requireUsable();
  return withoutGil([&] {
    return std::unique_ptr<NativeView, Release>(new NativeView(joined_->own(), {key, capacity, aliveWithin}));
  });
}

std::unique_ptr<NativeStream, Release> Connection::stream(const std::string& key, std::size_t depth,
                                                          std::size_t capacity, double aliveWithin) const {
  requireUsable();
  return withoutGil([&] {
    std::unique_ptr<NativeStream, Release> made(new NativeStream(joined_->own(), {key, capacity, aliveWithin}, depth));
    joined_->endWithThis(made->ending());
    return made;
  });
}

void Connection::close() const {
  if (isForked()) return;
  withoutGil([this] { joined_->close(); });
}

void Connection::closeAll() {
  std::vector<std::weak_ptr<Joined>> ones;
  {
    const std::lock_guard lock(All<Joined>::instance().mutex);
    ones.swap(All<Joined>::instance().ones);
  }
  for (const auto& weak : ones) {
    if (const auto joined = weak.lock()) joined->close();
  }
}

}  // namespace korvo::python
