#include "commands.h"
#include "patterns.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <map>
#include <mutex>
#include <unistd.h>

#include <fmt/format.h>

namespace korvo::fleet {
namespace {

using namespace HX::fleet;
using namespace std::chrono_literals;
using HX::HXValue;

constexpr auto kPresence = 500ms;

void print(const std::string& line) { std::cout << line << std::endl; }

HXValue readJson(const std::string& text) {
  try {
    return HX::fromJson(text);
  } catch (const std::exception& error) {
    throw UsageError(error.what());
  }
}

HXValue count(std::uint64_t number) { return static_cast<std::int64_t>(number); }

/// A record as a line, with the robot whose it is.
std::string lineOf(const std::string& robot, const Record& record) {
  return HX::toJson(HXValue::map({{"robot", robot},
                                  {"key", record.key},
                                  {"value", record.value},
                                  {"kind", record.kind},
                                  {"n", count(record.n)},
                                  {"time", toText(record.time)}}));
}

struct Row {
  std::string state = "off";
  double roundTrip = 0;
  Status status;
};

std::map<std::string, Row> rowsOf(FleetView& fleet) {
  std::map<std::string, Row> rows;
  for (Status& status : fleet.statuses()) {
    const std::string robot = status.robot;
    rows[robot].status = std::move(status);
  }
  for (const auto& [robot, took] : fleet.present(kPresence)) {
    rows[robot].state = "online";
    rows[robot].roundTrip = std::chrono::duration<double, std::milli>(took).count();
  }
  return rows;
}

std::string jsonOf(const std::string& robot, const Row& row) {
  HXValue::Map line{{"robot", robot},
                    {"state", row.state},
                    {"seen", toText(row.status.time)},
                    {"queued", count(row.status.queued)},
                    {"dropped", count(row.status.dropped)},
                    {"missed", count(row.status.missed)},
                    {"keys", count(row.status.keys)},
                    {"host", row.status.host}};
  if (row.state == "online") line["roundTrip"] = row.roundTrip;
  return HX::toJson(HXValue(std::move(line)));
}

void printTable(const std::map<std::string, Row>& rows) {
  print(fmt::format("{:<20} {:<7} {:>9} {:<28} {:>8} {:>8} {:>7}", "ROBOT", "STATE", "TRIP", "SEEN", "QUEUED",
                    "DROPPED", "KEYS"));
  for (const auto& [robot, row] : rows) {
    const std::string trip = row.state == "online" ? fmt::format("{:.1f} ms", row.roundTrip) : "";
    print(fmt::format("{:<20} {:<7} {:>9} {:<28} {:>8} {:>8} {:>7}", robot, row.state, trip, toText(row.status.time),
                      row.status.queued, row.status.dropped, row.status.keys));
  }
}

/// Blocks the signals that end, for `awaitEnd`. Before there are threads.
sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

}  // namespace

void listRobots(FleetView& fleet, bool asJson) {
  const auto rows = rowsOf(fleet);
  if (!asJson) return printTable(rows);
  for (const auto& [robot, row] : rows) print(jsonOf(robot, row));
}

void getValue(FleetView& fleet, const std::string& path, bool asJson) {
  const auto [robot, key] = toRobotAndRest(path);
  bool isThere = true;
  HXValue value;
  try {
    value = fleet.ask(robot, "get", HX::toJson(key));
  } catch (const NobodyError&) {
    isThere = false;
  }
  if (isThere && !asJson) return print(HX::toJson(value));
  const auto stored = fleet.stored(robot, key);
  if (!isThere && !stored) throw NobodyError(fmt::format("robot {} is not there, and had no key {}", robot, key));
  if (asJson) {
    HXValue line = stored ? HX::fromJson(lineOf(robot, *stored)) : HXValue::map({{"robot", robot}, {"key", key}});
    if (isThere) line.mapSet("value", value);
    line.mapSet("stale", !isThere);
    return print(HX::toJson(line));
  }
  print(HX::toJson(stored->value));
  std::cerr << fmt::format("robot {} is not there: this was so at {}\n", robot, toText(stored->time));
}

void listKeys(FleetView& fleet, const std::string& robot) {
  if (!isName(robot)) throw UsageError(fmt::format("{} is no robot", robot));
  std::vector<std::string> keys;
  try {
    const HXValue there = fleet.ask(robot, "list", "");
    for (const HXValue& key : there.asList()) keys.push_back(key.asString());
  } catch (const NobodyError&) {
    const auto& subjects = fleet.subjects();
    for (const Entry& entry : readKeys(fleet.connection(), subjects, subjects.valueBucket(), robot + ".>", 10s)) {
      keys.push_back(toKey(entry.key.substr(robot.size() + 1)));
    }
    if (keys.empty()) throw;
    std::cerr << fmt::format("robot {} is not there: these are the keys that it had\n", robot);
    std::ranges::sort(keys);
  }
  for (const std::string& key : keys) print(HX::toJson(key));
}

void watch(FleetView& fleet, const std::string& pattern) {
  const Pattern wanted(pattern);
  const std::string filter = wanted.filter();
  const auto dot = filter.find('.');
  if (dot == std::string::npos && filter != ">") throw UsageError("a pattern is ROBOT/KEY, with * and ** in it");
  const std::string robots = dot == std::string::npos ? "*" : filter.substr(0, dot);
  const std::string keys = dot == std::string::npos ? ">" : filter.substr(dot + 1);
  const auto& subjects = fleet.subjects();
  const auto output = std::make_shared<std::mutex>();
  const auto show = [wanted, output](std::size_t begin, bool events) {
    return [wanted, output, begin, events](const Message& message) {
      try {
        const auto subject = message.subject();
        const std::string robot(subject.substr(begin, subject.find('.', begin) - begin));
        if (message.data().empty()) return;
        const Record record = toRecord(message.data());
        // What is raised is told as an event; as a value it would be told twice.
        if (events == (record.kind == "Data") || !wanted.matches(robot + "/" + record.key)) return;
        const std::lock_guard lock(*output);
        print(lineOf(robot, record));
      } catch (const std::exception&) {  // Of somebody who writes otherwise.
      }
    };
  };
  fleet.connection().subscribe(subjects.event(robots, keys), show(subjects.fleet().size() + 1, true));
  const std::string values = FleetSubjects::stored(subjects.valueBucket(), "");
  fleet.connection().subscribe(values + robots + "." + keys, show(values.size(), false));
  const sigset_t signals = endingSignals();
  timespec look{0, 200'000'000};
  while (fleet.connection().isOpen() && std::cout) {
    if (sigtimedwait(&signals, nullptr, &look) > 0) return;
  }
  if (std::cout) throw AwayError("the connection to the hub was lost");
}

void setValue(FleetView& fleet, const std::string& path, const std::string& json, bool whenOnline) {
  const auto [robot, key] = toRobotAndRest(path);
  const HXValue value = readJson(json);
  if (whenOnline) return fleet.want(robot, key, value);
  fleet.ask(robot, "set." + toSubject(key), HX::toJson(value));
}

void raiseEvent(FleetView& fleet, const std::string& path, const std::string& json) {
  const auto [robot, key] = toRobotAndRest(path);
  fleet.ask(robot, "raise." + toSubject(key), HX::toJson(readJson(json)));
}

void callMethod(FleetView& fleet, const std::string& path, const std::string& method,
                const std::vector<std::string>& arguments) {
  const auto [robot, service] = toRobotAndRest(path);
  HXValue list = HXValue::list();
  for (const std::string& argument : arguments) list.arrayPush(readJson(argument));
  const HXValue result =
      fleet.ask(robot, fmt::format("call.{}.{}", toToken(service), toToken(method)), HX::toJson(list));
  if (result.isValid()) print(HX::toJson(result));
}

void showHistory(FleetView& fleet, const std::string& path) {
  const auto [robot, key] = toRobotAndRest(path);
  const auto& subjects = fleet.subjects();
  const auto events = readStream(fleet.connection(), subjects, subjects.eventStream(),
                                 subjects.event(robot, toSubject(key)), "all", 30s);
  for (const Entry& event : events) print(lineOf(robot, toRecord(event.data)));
}

void showTop(FleetView& fleet) {
  const sigset_t signals = endingSignals();
  timespec look{0, 500'000'000};
  for (;;) {
    const auto rows = rowsOf(fleet);
    if (::isatty(1) != 0) std::cout << "\x1b[H\x1b[2J";
    printTable(rows);
    if (sigtimedwait(&signals, nullptr, &look) > 0 || !std::cout) return;
  }
}

}  // namespace korvo::fleet
