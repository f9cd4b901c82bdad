#include "sender.h"

#include "hub.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;

constexpr auto kStoreLimit = 2s;    // For an acknowledgement.
constexpr auto kServerLimit = 30s;  // For the server's answer; a connection that has died ends long before.
constexpr auto kProbeGap = 1s;
constexpr auto kIdle = 200ms;
constexpr std::size_t kAll = 4096;   // More are never in flight.
constexpr std::size_t kLeast = 256;  // At once, on the slowest line.
constexpr std::size_t kFew = 64;     // They do not fill a line.
constexpr auto kSlow = 1s;           // Until all that was sent at once has arrived: less next time.
constexpr auto kQuick = 500ms;       // More.

}  // namespace

Sender::Sender(Outgoing& outgoing, FleetSubjects subjects, std::string robot)
    : outgoing_(outgoing), subjects_(std::move(subjects)), robot_(std::move(robot)), window_(kAll) {
  thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

Sender::~Sender() { use(nullptr); }

void Sender::use(std::shared_ptr<Connection> connection) {
  {
    const MutexLock lock(mutex_);
    connection_.swap(connection);
    cut_.clear();
    given_.notify_all();
  }
  // Or our thread would wait for an answer by it for as long as TCP takes to repeat what a cut line has swallowed.
  if (connection) connection->close();
}

std::string Sender::cut() const {
  const MutexLock lock(mutex_);
  return cut_;
}

void Sender::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    std::shared_ptr<Connection> connection;
    {
      MutexLock lock(mutex_);
      given_.wait(lock.native(), stop, [&]() HX_REQUIRES(mutex_) { return connection_ && connection_->isOpen(); });
      connection = connection_;
    }
    if (!connection || stop.stop_requested()) continue;
    try {
      listen(*connection);
      serve(*connection, stop);
    } catch (const std::exception&) {
      // Whoever gave it finds out that it has ended, and gives another one.
      connection->close();
    }
    outgoing_.giveBackLive();
    outgoing_.giveBackStored();
    const MutexLock lock(mutex_);
    if (connection_ == connection) connection_.reset();
  }
}

void Sender::serve(Connection& connection, const std::stop_token& stop) {
  awaitsStore_ = false;
  isProven_ = false;
  const auto isCurrent = [&] {
    const MutexLock lock(mutex_);
    return connection_.get() == &connection;
  };
  while (!stop.stop_requested() && connection.isOpen() && isCurrent()) {
    if (!work(connection)) outgoing_.await(kIdle, isProven_ && !isCut(), stop);
  }
}

/// @return Whether there was something to do.
bool Sender::work(Connection& connection) {
  const auto now = Clock::now();
  const bool awaits = outgoing_.awaitsStore();
  bool isLate = false;
  {
    const MutexLock lock(mutex_);
    if (awaits && !awaitsStore_) lastAnswer_ = now;
    awaitsStore_ = awaits;
    isLate = awaits && now - lastAnswer_ > kStoreLimit;
  }
  const std::string refused = connection.lastError();
  if (isLate) becomeCut(refused.empty() ? "the hub's store does not answer" : refused);
  Outgoing::Work work = outgoing_.take(window_, storable(now, awaits));
  if (work.isEmpty()) return false;
  send(connection, std::move(work));
  return true;
}

/// How much the store may be sent now.
std::size_t Sender::storable(Clock::time_point now, bool awaits) {
  if (!isCut()) {
    const std::size_t first = awaits ? 0 : 1;
    return isProven_ ? window_ : first;
  }
  if (now < nextProbe_) return 0;
  nextProbe_ = now + kProbeGap;
  outgoing_.giveBackStored();
  return 1;
}

void Sender::send(Connection& connection, Outgoing::Work work) {
  const std::string run = work.kept.empty() ? std::string() : outgoing_.run();  // That waits for the feed.
  std::string subject = subjects_.event(robot_, "");
  const std::size_t head = subject.size();
  for (const EventPointer& event : work.live) {
    subject.replace(head, std::string::npos, event->key->subject);
    connection.publish(subject, event->payload);
  }
  for (const EventPointer& event : work.kept) {
    connection.publish({subjects_.event(robot_, event->key->subject),
                        event->payload,
                        fmt::format("{}.kept.{}", connection.inbox(), event->id),
                        {{"Nats-Msg-Id", fmt::format("{}.{}.{}", robot_, run, event->id)}}});
  }
  for (const LastValues::Put& put : work.values) {
    Letter letter{subjects_.put(subjects_.valueBucket(), fmt::format("{}.{}", robot_, put.key->subject)),
                  put.record ? toPayload(*put.record) : std::string(),
                  fmt::format("{}.value.{}", connection.inbox(), put.id),
                  {{"Nats-Expected-Last-Subject-Sequence", std::to_string(put.follows)}}};
    if (!put.record) letter.headers.emplace_back("KV-Operation", "DEL");
    connection.publish(letter);
  }
  if (work.live.empty() && work.kept.size() + work.values.size() < kFew) return;
  awaitArrival(connection);
  outgoing_.confirmLive();
  outgoing_.reuse(std::move(work.live));
}

void Sender::awaitArrival(Connection& connection) {
  const auto begin = Clock::now();
  connection.flush(kServerLimit);
  const auto took = Clock::now() - begin;
  if (took > kSlow) {
    window_ = std::max(kLeast, window_ / 2);
  } else if (took < kQuick) {
    window_ = std::min(kAll, window_ * 2);
  }
}

void Sender::listen(Connection& connection) {
  connection.subscribe(connection.inbox() + ".kept.*", [this](const Message& message) { onEventAnswer(message); });
  connection.subscribe(connection.inbox() + ".value.*", [this](const Message& message) { onValueAnswer(message); });
}

std::uint64_t Sender::numberOf(std::string_view subject) {
  std::uint64_t number = 0;
  const auto begin = subject.rfind('.') + 1;
  std::from_chars(subject.data() + begin, subject.data() + subject.size(), number);
  return number;
}

void Sender::onEventAnswer(const Message& message) {
  // Most say nothing but that it is stored, and there are many.
  const bool isPlain = message.status() == 0 && message.data().find("\"error\"") == std::string_view::npos;
  if (!isPlain) {
    return becomeCut(message.status() == kNoResponders ? "the hub has no store for events: korvo fleet init"
                                                       : std::string(message.data()));
  }
  noteAnswer();
  if (!outgoing_.confirmKept(numberOf(message.subject()))) becomeCut("events were lost on their way to the store");
}

void Sender::onValueAnswer(const Message& message) {
  StoreAnswer answer;
  try {
    answer = toAnswer(message);
  } catch (const std::exception& error) {
    return becomeCut(error.what());
  }
  const std::uint64_t id = numberOf(message.subject());
  noteAnswer();
  // Numbers rise for as long as the bucket is the same.
  const bool isNew = answer.isStored() && answer.sequence <= highest_;
  if (answer.isStored()) highest_ = answer.sequence;
  outgoing_.onValues([&](LastValues& values) {
    if (answer.isStored()) {
      values.stored(id, answer.sequence);
    } else if (answer.last) {
      values.refused(id, *answer.last);
    } else {
      values.rejected(id);
    }
    if (isNew) values.beginAnew();
  });
}

void Sender::becomeCut(const std::string& why) {
  {
    const MutexLock lock(mutex_);
    if (!cut_.empty()) return;
    cut_ = why;
  }
  outgoing_.giveBackStored();
}

void Sender::noteStore() {
  if (!outgoing_.awaitsStore()) noteAnswer();
}

void Sender::noteAnswer() {
  const MutexLock lock(mutex_);
  lastAnswer_ = Clock::now();
  cut_.clear();
  isProven_ = true;
}

}  // namespace HX::fleet
