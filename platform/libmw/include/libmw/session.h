#pragma once

#include <libmw/file.h>
#include <libmw/genericobject.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mw {

class EventLoop;

using ServiceId = std::uint32_t;

struct ServiceInfo {
  ServiceId id = 0;
  std::string name;
};

/// Finds and publishes services beyond this process: what a transport or an engine implements. A session has one of
/// them, and one resolver, which is asked before it. Both are asked only for what is not offered in the process itself.
/// @par Threads  Any, in parallel: those that use the session, and those that answer for it. Called with no lock held.
class HX_API RemoteDirectory {
 public:
  virtual ~RemoteDirectory();
  /// At each such look-up, those of peers included. Must not wait. An empty object: there is no such service.
  virtual Future<AnyObject> find(const std::string& name) = 0;
  virtual Future<std::vector<ServiceInfo>> services() = 0;
  /// Publishes a service of this process. May wait for the answer: who registers it does. Offered already, it stays so.
  /// @throws std::runtime_error naming the service when its name is taken there.
  virtual void offer(ServiceId id, const std::string& name, const AnyObject& object) = 0;
  /// Withdraws it. Must not throw.
  virtual void withdraw(ServiceId id, const std::string& name) = 0;
  /// As `Session::offerFile` and `Session::fetchFile`. A directory of other machines has none to offer.
  virtual Ticket offerFile(const File& file);
  virtual File fetchFile(const Ticket& ticket);
};

/// Tells of services that come or go. What a thread connects within a `Session::CatchUp` of its own is told first of
/// what it has missed since that began.
class HX_API NoticeSignal final : public Signal<ServiceId, std::string> {
 public:
  SignalLink connect(SignalSubscriber subscriber);

 private:
  friend class Session;
  /// @return A link that all those lie before who were told.
  SignalLink tell(ServiceId id, const std::string& name);
  void tellOne(SignalLink link, ServiceId id, const std::string& name);

  /// Told of each connection and the thread's own CatchUp; set by the session.
  std::function<void(SignalLink)> onConnect_;
};

/// Where the services of a broker are found: those that this process offers, and beyond them whatever the directory
/// reaches that the session has joined.
///
/// A service is handed out as a handle on the object that was registered. The handle counts the calls that run in the
/// object and is cut off when the service is unregistered: the object can then go, whoever still holds the handle, and
/// calls through it fail with a runtime error that names the service.
///
/// @par Threads  Safe from any thread.
/// @par Locks    None is held while objects, resolvers or handlers are called.
class HX_API Session {
 public:
  /// Looks up services that this process does not offer, as `RemoteDirectory::find` does and before it is asked. An
  /// exception fails the look-up.
  using Resolver = std::function<Future<AnyObject>(const std::string& name)>;

  Session();  ///< With the process-wide loop.
  /// @param loop  Delivers the notices. Must outlive the session.
  explicit Session(EventLoop& loop);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  /// Looks a service up.
  /// @param name      Name of the service.
  /// @param protocol  Empty; kept for directories that offer one service in several ways.
  /// @return A handle on the service, at once for services of this process. Fails with a NoSuchServiceError, which is
  ///         a FutureError, when there is none.
  Future<AnyObject> service(const std::string& name, const std::string& protocol = {});

  /// Offers `object` under `name` and announces it.
  /// @return The id to unregister it by.
  /// @throws std::runtime_error when the name is empty or taken, the object null, or the session closed.
  ServiceId registerService(const std::string& name, AnyObject object);

  /// Withdraws a service: refuses new calls, runs `beforeDrain` (the owner wakes up calls that sleep), waits until
  /// the running calls of other threads have returned, and lets go of the object. A wait beyond five seconds is logged
  /// (category "mw.session", warning). From inside a call of the service itself it returns while that call still runs;
  /// the object is then let go of once it has returned.
  /// @param id           As `registerService` gave it.
  /// @param beforeDrain  Must not throw.
  /// @return False when there is no such service.
  bool unregisterService(ServiceId id, const std::function<void()>& beforeDrain = {});

  /// How long `unregisterService` waits for running calls before it logs; five seconds at first.
  void setDrainPatience(std::chrono::milliseconds patience);

  /// The services of this process, in the order of their registration. In a broker's process those of the processes
  /// that joined are among them.
  std::vector<ServiceInfo> services() const;

  /// The service of this name among them; empty when there is none.
  AnyObject ownService(const std::string& name) const;

  /// The services that `service` finds: those of this process, and those of the directory that it joined. Fails when
  /// the connection to that is lost.
  Future<std::vector<ServiceInfo>> reachableServices() const;

  /// Hands a file (of memory, as a rule) to another process: leaves a copy of its descriptor with the broker, which the
  /// other one fetches by the ticket, whichever of the two is the broker's. Tell it the ticket in a call.
  /// @param file  Stays the caller's.
  /// @return Good once, and for ten seconds.
  /// @throws std::runtime_error when the broker takes no more from this process, or the directory is none for files.
  Ticket offerFile(const File& file);
  /// Fetches what another process has offered.
  /// @param ticket  As it was told.
  /// @return The file. Whoever offered it may still have it, and write it: look at its seals.
  /// @throws std::runtime_error when there is none, any more.
  File fetchFile(const Ticket& ticket);

  /// Sets what finds services beyond this process in a way of its own; an empty one finds none.
  void setResolver(Resolver resolver);

  /// Joins a directory beyond this process; null leaves it. What is registered already is offered to it.
  /// @throws What the directory throws for one of the services; nothing is joined then.
  void join(std::shared_ptr<RemoteDirectory> directory);

  /// Withdraws every service, the last registered one first, and refuses new ones.
  void close();

  EventLoop& eventLoop() const;

  /// A service was offered or withdrawn: its id and its name. Delivered on the event loop, one notice at a time, in
  /// the order of what happened.
  NoticeSignal serviceRegistered;
  NoticeSignal serviceUnregistered;

  /// A module connects its handler at the end of its constructor. A service that registers while the constructor runs
  /// would fall between the pass over the existing services and the connection. A handler that the thread of a CatchUp
  /// connects is told of all that happened since that was made, before it is told anything else; nobody waits for it.
  ///
  /// @par Threads  Ends on the thread that made it. One of them may stand inside another.
  class HX_API CatchUp {
   public:
    explicit CatchUp(Session& session);
    CatchUp(const CatchUp&) = delete;
    CatchUp& operator=(const CatchUp&) = delete;
    ~CatchUp();

   private:
    friend class Session;
    Session& session_;
    const std::uint64_t begin_;  ///< Number of the first notice that counts.
    CatchUp* const outer_;
  };

  /// Holds notices back while it lives, and has them delivered afterwards. For moments.
  class HX_API NoticeHold {
   public:
    explicit NoticeHold(Session& session);
    NoticeHold(const NoticeHold&) = delete;
    NoticeHold& operator=(const NoticeHold&) = delete;
    ~NoticeHold();

   private:
    Session& session_;
  };

  /// The connection to the directory beyond was lost, and why; it is back, and the services of this process are offered
  /// there again. Delivered in one order with the notices of services: those beyond go after the loss, and come again
  /// before the return is told.
  Signal<std::string> connectionLost;
  Signal<> connectionRestored;

  /// Announces on `serviceRegistered` or `serviceUnregistered` what a directory beyond this process has learnt.
  void announce(ServiceId id, const std::string& name, bool registered);
  /// The same on `connectionLost` and `connectionRestored`.
  void announceLoss(const std::string& reason);
  void announceReturn();

 private:
  class Directory;
  class Notices;
  std::shared_ptr<Notices> notices_;
  std::unique_ptr<Directory> directory_;
};

}  // namespace mw
