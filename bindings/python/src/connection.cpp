#include "connection.h"

#include "errors.h"
#include "values.h"

#include <hxcommon/hxbroker.h>
#include <libmw/remoteerror.h>
#include <libmw/session.h>

#include <atomic>
#include <functional>
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

  /// Has something done before the connection is closed.
  void atClose(std::function<void()> function) {
    const std::lock_guard lock(mutex_);
    atClose_.push_back(std::move(function));
  }

  void close() {
    if (closed_.exchange(true)) return;
    std::vector<std::function<void()>> functions;
    {
      const std::lock_guard lock(mutex_);
      functions.swap(atClose_);
    }
    for (const auto& function : functions) function();
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
  mutable std::mutex mutex_;  // Guards `client_`, which goes without it, and `atClose_`.
  std::unique_ptr<mw::LocalClient> client_;
  std::vector<std::function<void()>> atClose_;
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
  return withoutGil([&] {
    std::unique_ptr<Follower, Release> made(new Follower(joined_->own(), what));
    joined_->atClose(made->ending());
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
