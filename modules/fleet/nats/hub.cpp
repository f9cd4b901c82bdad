#include "hub.h"

#include "payload.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <mutex>

#include <fmt/format.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;
constexpr auto kPatience = 2s;
constexpr int kWrongLastSequence = 10071;
constexpr int kStreamNameInUse = 10058;

Message ask(Connection& connection, const std::string& subject, const HXValue& question) {
  return connection.request({subject, question.isValid() ? toJson(question) : std::string()}, kPatience);
}

/// @return What the store answered.
/// @throws RefusedError with what it says.
HXValue demand(Connection& connection, const std::string& subject, const HXValue& question, int* code = nullptr) {
  const Message answer = ask(connection, subject, question);
  HXValue read = fromJson(answer.data());
  const HXValue* const error = read.find("error");
  if (!error) return read;
  if (code)
    *code = (*error)["err_code"].toInt();
  else
    throw RefusedError(fmt::format("{}: {}", subject, (*error)["description"].toString()));
  return read;
}

void makeStream(Connection& connection, const FleetSubjects& subjects, HXValue::Map config) {
  const std::string name = config.at("name").asString();
  const HXValue wanted(std::move(config));
  int code = 0;
  demand(connection, subjects.interface("STREAM.CREATE." + name), wanted, &code);
  if (code == kStreamNameInUse) {
    demand(connection, subjects.interface("STREAM.UPDATE." + name), wanted);
  } else if (code != 0) {
    demand(connection, subjects.interface("STREAM.CREATE." + name), wanted);
  }
}

HXValue::Map bucket(const std::string& name, int replicas) {
  HXValue::Map config;
  config["name"] = "KV_" + name;
  config["subjects"] = HXValue::list({FleetSubjects::stored(name, ">")});
  config["max_msgs_per_subject"] = 1;
  config["discard"] = "new";
  config["deny_delete"] = true;
  config["allow_rollup_hdrs"] = true;
  config["allow_direct"] = true;
  config["storage"] = "file";
  config["retention"] = "limits";
  config["num_replicas"] = replicas;
  return config;
}

/// The number behind "wrong last sequence: ".
std::optional<std::uint64_t> lastOf(const std::string& text) {
  const auto colon = text.rfind(": ");
  std::uint64_t number = 0;
  if (colon == std::string::npos) return std::nullopt;
  const char* const end = text.data() + text.size();
  return std::from_chars(text.data() + colon + 2, end, number).ptr == end ? std::optional(number) : std::nullopt;
}

std::string keyOf(std::string_view subject, const std::string& bucket) {
  return std::string(subject.substr(FleetSubjects::stored(bucket, "").size()));
}

}  // namespace

StoreAnswer toAnswer(const Message& message) {
  if (message.status() == kNoResponders) throw AwayError("the hub's store is not there");
  StoreAnswer answer;
  try {
    const HXValue read = fromJson(message.data());
    if (const HXValue* const error = read.find("error")) {
      const HXValue* const code = error->find("err_code");
      answer.code = code ? code->toInt() : (*error)["code"].toInt();
      answer.text = (*error)["description"].asString();
      if (answer.code == kWrongLastSequence) answer.last = lastOf(answer.text);
    } else {
      answer.sequence = static_cast<std::uint64_t>(read["seq"].toInt64());
    }
  } catch (const std::runtime_error& error) {
    throw AwayError(fmt::format("the hub's store answers with what is no answer: {}", error.what()));
  }
  return answer;
}

std::optional<Entry> readKey(Connection& connection, const FleetSubjects& subjects, const std::string& bucket,
                             const std::string& key) {
  const Message answer = connection.request({subjects.lastOf(bucket, key), {}}, kPatience);
  constexpr int kNone = 404;
  if (answer.status() == kNone) return std::nullopt;
  if (answer.status() != 0) throw AwayError(fmt::format("{}: the store answers {}", bucket, answer.status()));
  Entry entry{key, std::string(answer.data()), 0, !answer.header("KV-Operation").empty()};
  const std::string number = answer.header("Nats-Sequence");
  std::from_chars(number.data(), number.data() + number.size(), entry.sequence);
  return entry;
}

StoreAnswer writeKey(Connection& connection, const FleetSubjects& subjects, const std::string& bucket,
                     const std::string& key, const std::string& data, std::uint64_t follows) {
  const Letter letter{
      subjects.put(bucket, key), data, {}, {{"Nats-Expected-Last-Subject-Sequence", std::to_string(follows)}}};
  return toAnswer(connection.request(letter, kPatience));
}

std::vector<Entry> readStream(Connection& connection, const FleetSubjects& subjects, const std::string& stream,
                              const std::string& filter, const std::string& policy, std::chrono::milliseconds limit) {
  struct Collected {
    std::mutex mutex;  // Guards all below.
    std::condition_variable arrived;
    std::vector<Entry> entries;
  };
  const auto collected = std::make_shared<Collected>();
  natsInbox* inbox = nullptr;
  natsInbox_Create(&inbox);
  const std::string tail = std::string(inbox).substr(std::string(inbox).rfind('.') + 1);
  natsInbox_Destroy(inbox);
  const std::string deliver = fmt::format("{}.{}", connection.inbox(), tail);
  const Listening listening(connection, deliver, [collected](const Message& message) {
    if (message.data().empty() && message.status() != 0) return;  // A sign of life.
    const std::lock_guard lock(collected->mutex);
    collected->entries.push_back(
        {std::string(message.subject()), std::string(message.data()), 0, !message.header("KV-Operation").empty()});
    collected->arrived.notify_all();
  });
  const HXValue config = HXValue::map({{"deliver_subject", deliver},
                                       {"deliver_policy", policy},
                                       {"ack_policy", "none"},
                                       {"filter_subject", filter},
                                       {"inactive_threshold", std::int64_t{5'000'000'000}},
                                       {"mem_storage", true},
                                       {"num_replicas", 1},
                                       {"max_deliver", 1}});
  const HXValue made = demand(connection, subjects.interface("CONSUMER.CREATE." + stream),
                              HXValue::map({{"stream_name", stream}, {"config", config}}));
  // What was delivered before the answer was written is not pending any more.
  const auto expected = static_cast<std::size_t>(made["num_pending"].toInt64()) +
                        static_cast<std::size_t>(made["delivered"]["consumer_seq"].toInt64());
  std::unique_lock lock(collected->mutex);
  if (!collected->arrived.wait_for(lock, limit, [&] { return collected->entries.size() >= expected; })) {
    throw AwayError(fmt::format("{}: {} of {} messages arrived in time", stream, collected->entries.size(), expected));
  }
  return std::move(collected->entries);
}

std::vector<Entry> readKeys(Connection& connection, const FleetSubjects& subjects, const std::string& bucket,
                            const std::string& filter, std::chrono::milliseconds limit) {
  auto entries = readStream(connection, subjects, "KV_" + bucket, FleetSubjects::stored(bucket, filter),
                            "last_per_subject", limit);
  std::erase_if(entries, [](const Entry& entry) { return entry.isRemoved; });
  for (Entry& entry : entries) entry.key = keyOf(entry.key, bucket);
  return entries;
}

HXValue askRobot(Connection& connection, const std::string& subject, const std::string& data,
                 std::chrono::milliseconds limit) {
  const Message answer = connection.request({subject, data}, limit);
  const std::string error = answer.header("Nats-Service-Error");
  if (!error.empty()) throwFailure(answer.data(), error);
  return answer.data().empty() ? HXValue() : fromJson(answer.data());
}

void initialise(Connection& connection, const FleetSubjects& subjects, std::chrono::seconds age, std::int64_t bytes,
                int replicas) {
  for (const auto& name : {subjects.valueBucket(), subjects.statusBucket(), subjects.desiredBucket()}) {
    makeStream(connection, subjects, bucket(name, replicas));
  }
  HXValue::Map events;
  events["name"] = subjects.eventStream();
  events["subjects"] = HXValue::list({subjects.event("*", ">"), subjects.of("*", "dropped")});
  events["max_age"] = std::chrono::nanoseconds(age).count();
  events["max_bytes"] = bytes;
  events["duplicate_window"] = std::chrono::nanoseconds(std::min<std::chrono::seconds>(10min, age)).count();
  events["discard"] = "old";
  events["storage"] = "file";
  events["retention"] = "limits";
  events["allow_direct"] = true;
  events["num_replicas"] = replicas;
  makeStream(connection, subjects, std::move(events));
}

}  // namespace HX::fleet
