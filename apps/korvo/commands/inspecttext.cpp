#include "inspecttext.h"

#include "base/format.h"
#include "live/celltext.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <initializer_list>
#include <map>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace korvo {
namespace {

using HX::HXValue;
using std::string;

constexpr std::size_t kLabelWidth = 13;

/// Lines with a label before the first of several.
class Sheet {
 public:
  explicit Sheet(mw::SystemTimePoint now) : now_(now) {}

  void plain(string text) { lines_.push_back(std::move(text)); }
  void add(std::string_view label, std::string_view text) {
    lines_.push_back(fmt::format("{:<{}}{}", label == last_ ? "" : label, kLabelWidth, escapeControls(text)));
    last_ = label;
  }
  /// Rows whose columns stand below one another.
  void addRows(std::string_view label, const std::vector<std::vector<string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
      widths.resize(std::max(widths.size(), row.size()));
      for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columnsOf(escapeControls(row[i])));
    }
    for (const auto& row : rows) {
      string text;
      for (std::size_t i = 0; i < row.size(); ++i) {
        const string cell = escapeControls(row[i]);
        text += i + 1 == row.size() ? cell : padded(cell, widths[i] + 2);
      }
      add(label, text);
    }
  }

  /// "12:03:05", with the date where it is of another day.
  string clock(const HXValue& microseconds) const {
    const std::time_t time = microseconds.toInt64() / 1'000'000;
    const std::time_t today = mw::SystemClock::to_time_t(std::chrono::time_point_cast<mw::SystemClock::duration>(now_));
    const std::tm local = fmt::localtime(time);
    const std::tm current = fmt::localtime(today);
    const bool isToday = local.tm_yday == current.tm_yday && local.tm_year == current.tm_year;
    return isToday ? fmt::format("{:%H:%M:%S}", local) : fmt::format("{:%Y-%m-%d %H:%M:%S}", local);
  }
  string ago(const HXValue& microseconds) const {
    const auto since = now_ - mw::SystemTimePoint(std::chrono::microseconds(microseconds.toInt64()));
    return durationText(std::max(0.0, std::chrono::duration<double>(since).count())) + " ago";
  }

  std::vector<string> take() { return std::move(lines_); }

 private:
  const mw::SystemTimePoint now_;
  std::vector<string> lines_;
  string last_;
};

const HXValue& entry(const HXValue& map, std::string_view name) {
  static const HXValue none{};
  const HXValue* const found = map.find(name);
  return found ? *found : none;
}

const HXValue::List& listIn(const HXValue& map, std::string_view name) {
  static const HXValue::List none;
  const HXValue& found = entry(map, name);
  return found.isList() ? found.asList() : none;
}

string textIn(const HXValue& map, std::string_view name) {
  const HXValue& found = entry(map, name);
  return found.isString() ? found.asString() : string();
}

bool isSet(const HXValue& map, std::string_view name) {
  const HXValue& found = entry(map, name);
  return found.isBool() && found.asBool();
}

string authorText(const string& author) { return author.empty() ? "the broker's own process" : author; }

string placeText(const HXValue& map) {
  if (!isSet(map, "there")) return "not there";
  const string process = textIn(map, "process");
  return process.empty() ? "in the broker" : process;
}

/// "1 key", "2 keys".
string counted(std::int64_t count, std::string_view one) {
  return fmt::format("{} {}{}", count, one, count == 1 ? "" : "s");
}

/// "A", "A and B", "A, B and C", "A, B, C and 4 more".
string enumerated(std::vector<string> names, std::string_view comma = ", ") {
  constexpr std::size_t kMost = 4;
  if (names.size() > kMost) {
    const std::size_t more = names.size() - (kMost - 1);
    names.resize(kMost - 1);
    names.push_back(fmt::format("{} more", more));
  }
  string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) text += i + 1 == names.size() ? " and " : comma;
    text += names[i];
  }
  return text;
}

/// Who makes an extractor run.
string demandOf(const HXValue& production, const Sheet& sheet) {
  std::vector<string> wanted;
  std::vector<string> left;
  for (const HXValue& one : listIn(production, "for")) {
    const string who = textIn(one, "module") + " since " + sheet.clock(entry(one, "since"));
    if (isSet(one, "subscribed")) {
      wanted.push_back(who);
    } else if (isSet(one, "asked")) {
      left.push_back(textIn(one, "module"));
    }
  }
  if (const string failure = textIn(production, "failure"); !failure.empty()) {
    return fmt::format("does not run for {}: {}", enumerated(wanted), failure);
  }
  if (!isSet(production, "there")) return "is not there";
  if (!isSet(production, "told")) {
    return wanted.empty() ? "is not told of subscribers, and there are none"
                          : "is not told of subscribers; wanted by " + enumerated(wanted);
  }
  if (!wanted.empty()) return "is on for " + enumerated(wanted);
  if (isSet(production, "forNobody")) {
    return fmt::format("is on for nobody: {} {} gone without unsubscribing", enumerated(left),
                       left.size() == 1 ? "has" : "have");
  }
  return "is off: nobody is subscribed";
}

void addChanges(Sheet& sheet, const HXValue& told) {
  const HXValue& last = entry(told, "last");
  const HXValue& written = entry(told, "written");
  if (last.isMap()) {
    sheet.add("changed", fmt::format("{}, {}: {} by {}, revision {}", sheet.clock(entry(last, "time")),
                                     sheet.ago(entry(last, "time")), textIn(last, "what"),
                                     authorText(textIn(last, "author")), entry(last, "revision").toInt64()));
  } else if (written.isValid()) {
    sheet.add("changed", fmt::format("{}, {}", sheet.clock(written), sheet.ago(written)));
    sheet.add("by whom", last.isString() ? last.asString() : "unknown");
  } else {
    sheet.add("changed", "never");
  }
  const HXValue& rate = entry(told, "rate");
  if (rate.isMap()) {
    sheet.add("rate", fmt::format("{:.3g} a second, {:.3g} over the last minute; {} in the last {}",
                                  entry(rate, "second").toDouble(), entry(rate, "minute").toDouble(),
                                  counted(entry(told, "changes").toInt64(), "change"),
                                  durationText(entry(told, "reach").toDouble())));
  } else {
    sheet.add("rate", rate.isString() ? rate.asString() : "unknown");
  }
}

void addSubscribers(Sheet& sheet, const HXValue& told) {
  std::vector<std::vector<string>> rows;
  for (const HXValue& one : listIn(told, "subscribers")) {
    const HXValue& last = entry(one, "lastCall");
    rows.push_back({textIn(one, "module") + "." + textIn(one, "method"), placeText(one),
                    "since " + sheet.clock(entry(one, "since")),
                    last.isValid() ? "took " + durationText(last.toDouble()) : "not called yet"});
  }
  if (rows.empty()) {
    sheet.add("subscribers", "none");
  } else {
    sheet.addRows("subscribers", rows);
  }
}

void addWaits(Sheet& sheet, const HXValue& told) {
  for (const HXValue& one : listIn(told, "calls")) {
    const string event = textIn(one, "event");
    sheet.add("being called",
              fmt::format("{}{}, for {} at least", textIn(one, "subscriber"), event.empty() ? "" : " for " + event,
                          durationText(entry(one, "lasts").toDouble())));
  }
  for (const HXValue& one : listIn(told, "waits")) {
    const string who = textIn(one, "who");
    const string forWhom = textIn(one, "forWhom");
    sheet.add("waiting", fmt::format("{} for {}, to raise {}, for {}", who.empty() ? "a thread" : who,
                                     forWhom.empty() ? "somebody" : forWhom, textIn(one, "event"),
                                     durationText(entry(one, "lasts").toDouble())));
  }
}

string bytesText(std::int64_t bytes) { return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / 1048576.0); }

void addMemory(Sheet& sheet, const HXValue& told) {
  const HXValue& changes = entry(told, "changesPerSecond");
  sheet.add("memory", fmt::format("{}; the process holds {}", counted(entry(told, "keys").toInt64(), "key"),
                                  bytesText(entry(told, "residentBytes").toInt64())));
  sheet.add("changes", changes.isString() ? changes.asString() : fmt::format("{:.3g} a second", changes.toDouble()));
  sheet.add("subscribers", counted(entry(told, "subscriptions").toInt64(), "subscription"));
}

/// What several events of one extractor have in common is said once; `korvo demand` tells of each.
void addExtractors(Sheet& sheet, const HXValue& answer) {
  std::map<string, std::vector<string>> events;
  for (const HXValue& one : listIn(answer, "extractors")) {
    events[textIn(one, "extractor") + " " + demandOf(one, sheet)].push_back(textIn(one, "event"));
  }
  for (const auto& [demand, names] : events) {
    const string more = names.size() == 1 ? "" : fmt::format(" and {} more", names.size() - 1);
    sheet.add("extractors", fmt::format("{}{}: {}", names.front(), more, demand));
  }
}

/// That a value is stale stands below its time.
void addExpected(Sheet& sheet, const HXValue& answer) {
  const HXValue& expected = entry(answer, "expected");
  if (expected.isMap()) {
    sheet.add("expected", fmt::format("{}every {}", isSet(expected, "overdue") ? "OVERDUE: " : "",
                                      durationText(entry(expected, "limit").toDouble())));
  } else if (expected.isString()) {
    sheet.add("expected", expected.asString());
  }
}

}  // namespace

string durationText(double seconds) {
  if (seconds < 1e-3) return fmt::format("{:.0f} µs", seconds * 1e6);
  if (seconds < 1) return fmt::format("{:.3g} ms", seconds * 1e3);
  if (seconds < 120) return fmt::format("{:.3g} s", seconds);
  if (seconds < 7200) return fmt::format("{:.0f} min", seconds / 60);
  return fmt::format("{:.0f} h", seconds / 3600);
}

std::vector<string> explainText(const HXValue& answer, mw::SystemTimePoint now, std::size_t width) {
  Sheet sheet(now);
  sheet.plain(fmt::format("{}: {}, {}", formatName(textIn(answer, "key"), NameReader::Shell), textIn(answer, "kind"),
                          textIn(answer, "type")));
  if (const string text = textIn(answer, "description"); !text.empty()) sheet.plain("  " + escapeControls(text));
  sheet.plain("");
  const std::size_t room = std::max(width, 2 * kLabelWidth) - kLabelWidth;
  sheet.add("value", fit(briefText(entry(answer, "value"), room), room));
  addChanges(sheet, answer);
  addExpected(sheet, answer);
  addSubscribers(sheet, answer);
  addWaits(sheet, answer);
  if (const HXValue& production = entry(answer, "extractor"); production.isMap()) {
    sheet.add("extractor", textIn(production, "extractor") + " " + demandOf(production, sheet));
  }
  for (const HXValue& one : listIn(answer, "mapped")) {
    sheet.add("mapped", fmt::format("{}.{}{}", textIn(one, "service"), textIn(one, "signal"),
                                    isSet(one, "there") ? "" : ", which is not there"));
  }
  for (const HXValue& one : listIn(answer, "odd")) sheet.add("odd", one.asString());
  return sheet.take();
}

std::vector<string> demandText(const HXValue& answer, mw::SystemTimePoint now) {
  const Sheet sheet(now);
  std::vector<string> lines;
  if (answer.isList()) {
    for (const HXValue& one : answer.asList()) {
      lines.push_back(fmt::format("{}: {} {}", escapeControls(textIn(one, "event")),
                                  escapeControls(textIn(one, "extractor")), escapeControls(demandOf(one, sheet))));
    }
  }
  if (lines.empty()) lines.emplace_back("no event has an extractor");
  return lines;
}

/// Viewers of many keys are told with the number of them.
void addViews(Sheet& sheet, const HXValue& views) {
  if (!views.isMap() || listIn(views, "views").empty()) return;
  constexpr std::size_t kMost = 10;
  std::vector<std::vector<string>> rows;
  for (const HXValue& one : listIn(views, "views")) {
    if (rows.size() == kMost) break;
    rows.push_back(
        {authorText(textIn(one, "viewer")), textIn(one, "key"),
         fmt::format("{} bytes{}", entry(one, "bytes").toInt64(), isSet(one, "isWaiting") ? ", waits" : "")});
  }
  sheet.addRows("viewing", rows);
  sheet.add("views", fmt::format("{}, in {} of {} bytes", listIn(views, "views").size(),
                                 entry(views, "bytes").toInt64(), entry(entry(views, "limits"), "bytes").toInt64()));
}

std::vector<string> doctorText(const std::vector<mw::RunningBroker>& brokers, const HXValue& answer,
                               const HXValue& views, mw::SystemTimePoint now) {
  Sheet sheet(now);
  for (const auto& one : brokers) {
    const auto since = std::chrono::floor<std::chrono::microseconds>(one.since.time_since_epoch()).count();
    sheet.add("broker", fmt::format("{}, process {}, version {}, since {}", one.name, one.process,
                                    one.version.empty() ? "unknown" : one.version, sheet.clock(std::int64_t{since})));
  }
  addMemory(sheet, answer);
  std::vector<std::vector<string>> rows;
  for (const HXValue& one : listIn(answer, "slowest")) {
    rows.push_back(
        {textIn(one, "module"), durationText(entry(one, "lastCall").toDouble()), textIn(one, "key"), placeText(one)});
  }
  sheet.addRows("slowest", std::exchange(rows, {}));
  addWaits(sheet, answer);
  for (const HXValue& one : listIn(answer, "followers")) {
    rows.push_back({authorText(textIn(one, "who")), fmt::format("{} behind", entry(one, "behind").toInt64()),
                    counted(entry(one, "gaps").toInt64(), "gap") + (isSet(one, "paused") ? ", paused" : "")});
  }
  sheet.addRows("following", std::exchange(rows, {}));
  addViews(sheet, views);
  for (const HXValue& one : listIn(answer, "dropped")) {
    rows.push_back({sheet.clock(entry(one, "time")), textIn(one, "module"), textIn(one, "event"), textIn(one, "why")});
  }
  sheet.addRows("dropped", std::exchange(rows, {}));
  addExtractors(sheet, answer);
  if (const HXValue& kept = entry(answer, "kept"); kept.isMap()) {
    sheet.add("kept", fmt::format("{} in {}", counted(entry(kept, "keys").toInt64(), "key"), textIn(kept, "folder")));
  }
  for (const HXValue& one : listIn(answer, "severalAuthors")) {
    std::vector<string> authors;
    for (const HXValue& author : listIn(one, "authors")) authors.push_back(authorText(author.asString()));
    sheet.add("authors", fmt::format("{} is written by {}", textIn(one, "key"), enumerated(authors, "; ")));
  }
  for (const HXValue& one : listIn(answer, "wrong")) sheet.add("wrong", one.asString());
  if (listIn(answer, "wrong").empty()) sheet.add("wrong", "nothing");
  return sheet.take();
}

}  // namespace korvo
