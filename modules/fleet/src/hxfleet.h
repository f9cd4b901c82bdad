#pragma once

#include "connection.h"
#include "hub.h"
#include "knocking.h"
#include "mirror.h"
#include "outgoing.h"
#include "requests.h"
#include "roster.h"
#include "sender.h"
#include "services.h"

#include <hxcommon/hxmodule.h>
#include <hxerror/mutex.h>
#include <hxjournal/follow.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <stop_token>
#include <string>
#include <thread>

namespace HX {

/// Makes this robot one of a fleet: what it raises and what its keys are is seen at a hub, others may ask it, and it
/// takes on what it is to have. The robot is the only writer of what stands under its name there.
///
/// It follows the changes. Nobody on the robot ever waits for the fleet: a hub that is away, frozen or full, or that
/// refuses us, is one line in the log for each change of state, and is tried for ever.
///
/// @par Threads  All methods are safe from any thread.
class HXFleet : public HXModule {
 public:
  HXFleet(const std::shared_ptr<HXBroker>& broker, const std::string& name);
  ~HXFleet() override;

  void init() override;
  void exit() override;

  /// {state: "connected", "cut", "away", "refused" or "left", reason, robot, fleet, server, raised, confirmed, queued,
  /// inFlight, dropped, missed, keys, turnedAway, desired, follows}.
  HXValue status();
  /// The robots of the fleet by their names, each {robot, state: "online" or "off", seen, host, version, raised,
  /// confirmed, queued, dropped, missed, keys}, as it told last.
  /// @throws std::runtime_error when the fleet cannot be asked, saying why.
  HXValue robots();
  /// Brings another robot in: under "robot3/" its values and events, and its services.
  /// @throws HXError for what is no name of another robot.
  void follow(const std::string& robot);
  /// Ends what `follow` or the setting of that name began; what it brought in goes.
  /// @throws HXError for one that is not followed.
  void unfollow(const std::string& robot);
  /// Stays away from the fleet until `join`.
  void leave();
  void join();

 private:
  enum class State : std::uint8_t { Away, Connected, Cut, Refused, Left };
  struct Session;

  void addSettings();
  void readSettings();
  void bindMethods();
  void followChanges();
  // On the thread of the module:
  void run(const std::stop_token& stop);
  void awaitBroker(const std::stop_token& stop);
  void attempt(const std::stop_token& stop);
  void awaitServer(const std::stop_token& stop);
  void serve(Session& session, const std::stop_token& stop);
  void watchLine(Session& session, const std::stop_token& stop);  // On a thread of its own.
  void requireOwnName(fleet::Connection& connection);
  void watchName(const std::shared_ptr<Session>& session);
  void tell(Session& session);
  void storeStatus(Session& session, const fleet::Status& status);
  void tellDropped(fleet::Connection& connection);
  void takeDesired(fleet::Connection& connection);
  std::chrono::milliseconds untilNextAttempt();
  void pause(std::chrono::milliseconds duration, const std::stop_token& stop);
  void lose(State state, const std::string& reason);
  void showState();
  fleet::Status presentStatus();
  // On any, the library's too:
  void noteRefusal(const std::string& text);
  std::string refusal();
  bool isOwn(std::string_view subject) const;
  void become(State state, const std::string& reason);
  bool hasLeft();
  void wake();
  static const char* nameOf(State state);

  // As the settings say.
  static constexpr const char* kCategory = "hxfleet";

  std::string host_;
  std::string robot_;
  fleet::Access access_;
  fleet::Permissions permissions_;
  std::vector<std::string> followed_;
  std::optional<fleet::FleetSubjects> subjects_;

  mw::SystemTimePoint since_{};
  std::optional<fleet::Outgoing> outgoing_;
  std::unique_ptr<fleet::Sender> sender_;
  std::unique_ptr<fleet::Requests> requests_;
  std::unique_ptr<fleet::Mirror> mirror_;
  std::unique_ptr<fleet::Roster> roster_;

  // Of the thread of the module.
  std::mt19937 random_{std::random_device{}()};
  std::chrono::steady_clock::time_point served_;  // Last, by a connection that lasted.
  fleet::Knocking knocking_;                      // While a connection is served, of the thread that watches its line.
  std::string answered_;                          // The server that did, to a knock.
  bool holdsName_ = false;                        // No other robot had it when we asked.
  std::string stored_;                            // The status that the bucket has, without its time.
  std::uint64_t statusSequence_ = 0;              // Its number there.
  HXValue::Map desired_;
  std::atomic<std::uint64_t> desiredRevision_{0};
  std::map<std::string, HXValue> shown_;

  Mutex mutex_;
  std::condition_variable_any woken_;
  State state_ HX_GUARDED_BY(mutex_) = State::Away;
  std::optional<State> told_ HX_GUARDED_BY(mutex_);
  std::string reason_ HX_GUARDED_BY(mutex_) = "not connected yet";
  std::string server_ HX_GUARDED_BY(mutex_);
  std::string refusal_ HX_GUARDED_BY(mutex_);  // What the hub said last of a right that this connection does not have.
  std::chrono::steady_clock::time_point refusedAt_ HX_GUARDED_BY(mutex_);
  bool isLeft_ HX_GUARDED_BY(mutex_) = false;
  bool isWoken_ HX_GUARDED_BY(mutex_) = false;

  std::jthread thread_;
  journal::Follow follow_;
};

}  // namespace HX
