#include "hxfleet.h"

#include "session.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/settings.h>
#include <hxproxies/hxmemoryproxy.h>
#include <hxvalue/json.h>
#include <libmw/log.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

using namespace std::chrono_literals;
using fleet::Letter;
using fleet::Status;
using Clock = std::chrono::steady_clock;

constexpr auto kStatusGap = 2s;
constexpr auto kStoredStatusGap = 30s;
constexpr auto kDesiredGap = 30s;
constexpr auto kLeft = 10'000ms;  // Between looks at whether it joins again; it is woken, too.
constexpr auto kLasting = 2s;     // Of a connection that has come about.
constexpr auto kBulkPings = 10s;  // The other connection, to the same server, tells earlier.
constexpr auto kHeardLimit = 5s;  // For it to have what we asked of it.
constexpr auto kWaitForBroker = 1s;

bool tellsOfSubscription(const std::string& text) { return text.find("Subscription") != std::string::npos; }

}  // namespace

HXFleet::HXFleet(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
  setModuleDescription("HXFleet makes this robot one of a fleet: others see its keys and events, and may ask it.");
  addSettings();
  readSettings();
  bindMethods();
}

HXFleet::~HXFleet() { follow_.end(); }

void HXFleet::init() {
  since_ = mw::systemNow();
  outgoing_->begin(fmt::format("{:x}", retainedChanges(getParentBroker()).latest.epoch));
  sender_ = std::make_unique<fleet::Sender>(*outgoing_, *subjects_, robot_);
  requests_ = std::make_unique<fleet::Requests>(*this, *subjects_, permissions_,
                                                [this](std::string_view key) { return outgoing_->exports(key); });
  mirror_ = std::make_unique<fleet::Mirror>(*this, *subjects_, followed_);
  roster_ = std::make_unique<fleet::Roster>(*subjects_);
  followChanges();
  thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void HXFleet::exit() {
  follow_.end();
  if (thread_.joinable()) {
    thread_.request_stop();
    thread_.join();
  }
  sender_.reset();
  mirror_.reset();
  requests_.reset();
  HXModule::exit();
}

void HXFleet::followChanges() {
  journal::FollowOptions options;
  options.onGap = [this](const journal::Gap& gap) { outgoing_->gap(gap); };
  options.onUnchanged = [this](std::string_view key, journal::Position) { outgoing_->unchanged(key); };
  options.onComplete = [this](journal::Position) { outgoing_->complete(); };
  follow_ = HXModule::follow(
      journal::Filter(), [this](const journal::Change& change) { outgoing_->change(change); }, std::move(options));
}

// --- The thread of the module ----------------------------------------------------------------------------------------

void HXFleet::run(const std::stop_token& stop) {
  awaitBroker(stop);
  served_ = Clock::now();
  while (!stop.stop_requested()) {
    try {
      if (hasLeft()) {
        lose(State::Left, "it was told to leave");
        pause(kLeft, stop);
        continue;
      }
      attempt(stop);
    } catch (const fleet::RefusedError& error) {
      lose(State::Refused, error.what());
    } catch (const std::exception& error) {
      lose(State::Away, error.what());
    }
    sender_->use(nullptr);
    mirror_->lose();
    showState();
    awaitServer(stop);
  }
}

/// Modules that are loaded after us are to be there when the first request comes.
void HXFleet::awaitBroker(const std::stop_token& stop) {
  const auto end = Clock::now() + kWaitForBroker;
  const auto broker = findParentBroker();
  while (broker && !stop.stop_requested() && Clock::now() < end) {
    if (broker->session()->service("Broker").wait(100ms) == mw::FutureState::FinishedWithValue) return;
    pause(20ms, stop);
  }
}

/// Connects, and stays until that ends.
void HXFleet::attempt(const std::stop_token& stop) {
  const std::string inbox = "_INBOX." + robot_;
  const auto session = std::make_shared<Session>();
  fleet::Connection::Options options{fmt::format("{} control", robot_), inbox, true, [this] { wake(); }, answered_};
  options.onRefusal = [this, heard = session->heard](const std::string& text) {
    noteRefusal(text);
    const bool isNoted = refusal() == text;
    if (isNoted && tellsOfSubscription(text)) heard->isBarred = true;
  };
  {
    const MutexLock lock(mutex_);
    refusal_.clear();
  }
  session->control = std::make_shared<fleet::Connection>(access_, options);
  if (!holdsName_) requireOwnName(*session->control);
  options.name = fmt::format("{} bulk", robot_);
  options.isPrompt = false;
  options.first = session->control->chosen();
  options.pingGap = kBulkPings;
  session->bulk = std::make_shared<fleet::Connection>(access_, options);
  requests_->listen(session->control, presentStatus());
  watchName(session);
  session->control->subscribe(subjects_->of(robot_, "desired"), [this, heard = session->heard](const auto&) {
    heard->isNudged = true;
    wake();
  });
  {
    const MutexLock lock(mutex_);
    server_ = session->control->server();
  }
  roster_->listen(session->control);
  // Whoever sees that we are connected may ask us at once.
  session->control->flush(kHeardLimit);
  if (session->heard->isBarred) throw fleet::RefusedError(refusal());
  become(State::Connected, session->control->server());
  session->isReturn = std::exchange(holdsName_, true);
  sender_->use(session->bulk);
  if (knocking_.isStale()) knocking_.resolve(access_.servers);
  serve(*session, stop);
}

void HXFleet::serve(Session& session, const std::stop_token& stop) {
  const auto begin = Clock::now();
  const std::jthread watch([&](const std::stop_token& ended) { watchLine(session, ended); });
  while (!stop.stop_requested() && !hasLeft()) {
    // One that ends at once is one more failed attempt.
    if (Clock::now() - begin > kLasting) served_ = Clock::now();
    if (!session.control->isOpen() || !session.bulk->isOpen()) {
      const std::string why = session.control->isOpen() ? session.bulk->lastError() : session.control->lastError();
      if (fleet::tellsRefusal(why)) throw fleet::RefusedError(why);
      // A hub that reads its users again may hang up before it says why: what it said holds until it can be asked anew.
      if (const std::string refused = refusal(); !refused.empty()) throw fleet::RefusedError(refused);
      throw fleet::AwayError(why.empty() ? "the connection was lost" : why);
    }
    if (session.heard->isBarred) throw fleet::RefusedError(refusal());
    if (session.heard->isTaken) {
      holdsName_ = false;
      throw fleet::RefusedError(session.heard->holder);
    }
    tell(session);
    mirror_->listen(session.bulk);
    roster_->listen(session.control);
    pause(500ms, stop);
  }
}

/// What is due of what is told now and then.
void HXFleet::tell(Session& session) {
  const auto now = Clock::now();
  if (now >= session.nextStatus) {
    session.nextStatus = now + kStatusGap;
    const Status status = presentStatus();
    const bool isWhole = now >= session.nextWhole;
    if (isWhole) session.nextWhole = now + kStoredStatusGap;
    session.control->publish(subjects_->of(robot_, "status"), toPayload(status, isWhole));
    Status timeless = status;
    timeless.time = {};
    if (now >= session.nextStored || toPayload(timeless) != stored_) storeStatus(session, status);
    tellDropped(*session.control);
    showState();
  }
  if (session.heard->isNudged.exchange(false) || now >= session.nextDesired) {
    session.nextDesired = now + kDesiredGap;
    takeDesired(*session.control);
    mirror_->refresh(session.bulk);
  }
}

/// By the store's answer it is known, too, whether that can be reached.
void HXFleet::storeStatus(Session& session, const Status& status) {
  std::string why = sender_->cut();
  try {
    const std::string payload = toPayload(status);
    const auto put = [&] {
      return writeKey(*session.control, *subjects_, subjects_->statusBucket(), robot_, payload, statusSequence_);
    };
    auto answer = put();
    // What was stored by us is gone, or may have been before we knew of it: so is what else there was.
    const bool isBlank = answer.isStored() && session.isReturn && statusSequence_ == 0;
    const bool isGone = isBlank || (answer.last && *answer.last < statusSequence_);
    if (isGone) outgoing_->onValues([](fleet::LastValues& values) { values.beginAnew(); });
    if (answer.last) {
      statusSequence_ = *answer.last;
      answer = put();
    }
    if (answer.isStored()) {
      statusSequence_ = answer.sequence;
      Status timeless = status;
      timeless.time = {};
      stored_ = toPayload(timeless);
      sender_->noteStore();
      why = sender_->cut();
      // Of a cut that only the sender knows of we ask again soon, or its end would be told late.
      session.nextStored = why.empty() ? Clock::now() + kStoredStatusGap : Clock::time_point();
    } else {
      why = answer.text;
    }
  } catch (const fleet::NobodyError&) {
    why = "the hub has no store: a cluster has it again once it has chosen a leader, korvo fleet init makes it";
  } catch (const std::exception& error) {
    why = error.what();
  }
  if (!session.control->isOpen()) return;  // Of which more is told soon.
  if (const std::string refused = refusal(); !refused.empty()) {
    become(State::Refused, refused);
  } else if (why.empty()) {
    become(State::Connected, session.control->server());
  } else {
    become(State::Cut, why);
  }
}

void HXFleet::tellDropped(fleet::Connection& connection) {
  const auto dropped = outgoing_->takeDropped();
  std::vector<fleet::Dropped> untold;
  for (const fleet::Dropped& each : dropped) {
    try {
      const auto answer = connection.request({subjects_->of(robot_, "dropped"), toPayload(each, outgoing_->run())},
                                             untold.empty() ? 2s : 1ms);
      if (!fleet::toAnswer(answer).isStored()) untold.push_back(each);
    } catch (const std::exception&) {  // To be told later.
      untold.push_back(each);
    }
  }
  outgoing_->returnDropped(untold);
}

/// Takes on what has changed of what this robot is to have.
void HXFleet::takeDesired(fleet::Connection& connection) {
  try {
    const auto entry = readKey(connection, *subjects_, subjects_->desiredBucket(), robot_);
    if (!entry || entry->sequence == desiredRevision_) return;
    const HXValue wanted = entry->isRemoved ? HXValue::map() : fromJson(entry->data);
    auto memory = this->memory();
    for (const auto& [key, value] : wanted.asMap()) {
      const auto known = desired_.find(key);
      if (known != desired_.end() && known->second == value) continue;
      memory.insertData(key, value);
    }
    desired_ = wanted.asMap();
    desiredRevision_ = entry->sequence;
  } catch (const fleet::NobodyError&) {  // No store, which the status tells.
  } catch (const std::exception& error) {
    mw::log::verbose(kCategory, "desired", error.what());
  }
}

void HXFleet::pause(std::chrono::milliseconds duration, const std::stop_token& stop) {
  MutexLock lock(mutex_);
  woken_.wait_for(lock.native(), stop, duration, [&]() HX_REQUIRES(mutex_) { return isWoken_; });
  isWoken_ = false;
}

bool HXFleet::hasLeft() {
  const MutexLock lock(mutex_);
  return isLeft_;
}

}  // namespace HX
