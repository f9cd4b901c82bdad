#include "payload.h"

#include <hxerror/hxerror.h>
#include <hxvalue/exactjson.h>
#include <hxvalue/json.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <iomanip>
#include <locale>
#include <sstream>
#include <stdexcept>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace HX::fleet {
namespace {

using namespace std::chrono;

/// Names of keys are plain nearly always, and there is one in each event.
void appendQuoted(std::string& text, const std::string& name) {
  const bool isPlain =
      std::ranges::all_of(name, [](char c) { return c >= ' ' && c < '\x7f' && c != '"' && c != '\\'; });
  if (isPlain) {
    text.append(1, '"').append(name).append(1, '"');
  } else {
    text += toJson(HXValue(name));
  }
}

void appendNumber(std::string& text, std::uint64_t number) {
  std::array<char, 20> digits{};
  text.append(digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
}

void appendTime(std::string& text, mw::SystemTimePoint time) {
  const auto second = floor<seconds>(time);
  auto micros = duration_cast<microseconds>(time - second).count();
  // Of many times in one second, which is usual, only the first is worked out.
  thread_local seconds known{-1};
  thread_local std::string until;
  if (second.time_since_epoch() != known) {
    known = second.time_since_epoch();
    until = fmt::format("{:%Y-%m-%dT%H:%M:%S}", fmt::gmtime(known.count()));
  }
  constexpr std::size_t kMicroDigits = 6;
  std::array<char, kMicroDigits> digits{};
  for (std::size_t i = kMicroDigits; i-- > 0; micros /= 10) digits[i] = static_cast<char>('0' + micros % 10);
  text.append(until).append(1, '.').append(digits.data(), kMicroDigits).append(1, 'Z');
}

std::string textOf(const HXValue& object, std::string_view name) {
  const HXValue* const found = object.find(name);
  const std::string* const text = found ? found->stringIf() : nullptr;
  if (!text) throw std::runtime_error(fmt::format("it has no text \"{}\"", name));
  return *text;
}

}  // namespace

std::string toText(mw::SystemTimePoint time) {
  std::string text;
  appendTime(text, time);
  return text;
}

mw::SystemTimePoint toTime(const std::string& text) {
  std::tm parts{};
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  int micros = 0;
  char dot = 0;
  char zone = 0;
  if (!(stream >> std::get_time(&parts, "%Y-%m-%dT%H:%M:%S") >> dot >> micros >> zone) || dot != '.' || zone != 'Z') {
    throw std::runtime_error(fmt::format("{} is no time", HXValue(text).toString()));
  }
  return mw::SystemTimePoint(seconds(timegm(&parts)) + microseconds(micros));
}

std::string toPayload(const Record& record) {
  std::string text;
  writePayload(record, text);
  return text;
}

void writePayload(const Record& record, std::string& text) {
  std::string value = toJson(record.value);
  std::string exact = exactHex(record.value);
  const std::size_t size = value.size() + exact.size();
  if (size > kLargestValue) {
    value = fmt::format(R"({{"tooLarge":{}}})", size);
    exact.clear();
  }
  // There is one in each event: a text that is made once, and does not grow.
  text.clear();
  text.reserve(record.key.size() + value.size() + exact.size() + record.run.size() + 144);
  text += R"({"key":)";
  appendQuoted(text, record.key);
  text.append(R"(,"value":)").append(value);
  if (!exact.empty()) text.append(R"(,"msgpack":")").append(exact).append(1, '"');
  text.append(R"(,"kind":")").append(record.kind).append(R"(","n":)");
  appendNumber(text, record.n);
  text.append(R"(,"run":")").append(record.run).append(R"(","time":")");
  appendTime(text, record.time);
  text.append(R"("})");
}

Record toRecord(std::string_view payload) {
  const HXValue object = fromJson(payload);
  if (!object.isMap()) throw std::runtime_error("it is no object of JSON");
  Record record;
  record.key = textOf(object, "key");
  record.kind = textOf(object, "kind");
  record.run = textOf(object, "run");
  record.time = toTime(textOf(object, "time"));
  const HXValue* const n = object.find("n");
  const HXValue* const value = object.find("value");
  if (!n || !value) throw std::runtime_error("it has no n, or no value");
  record.n = static_cast<std::uint64_t>(n->toInt64());
  record.value = object.find("msgpack") ? fromExactHex(textOf(object, "msgpack")) : *value;
  return record;
}

std::string toPayload(const Dropped& dropped, const std::string& run) {
  std::string key;
  appendQuoted(key, dropped.key);
  return fmt::format(R"({{"key":{},"first":{},"last":{},"count":{},"run":"{}"}})", key, dropped.first, dropped.last,
                     dropped.count, run);
}

Failure toFailure(const std::exception& error, int code) {
  Failure failure{code, error.what(), {}};
  HXValue body = HXValue::list();
  if (const auto* known = dynamic_cast<const HXError*>(&error)) {
    body = HXValue::list({"HXError", known->message(), known->module(), known->method(), known->file(), known->line()});
  } else {
    body = HXValue::list({"runtime", failure.text});
  }
  failure.body = toJson(body);
  return failure;
}

void throwFailure(std::string_view body, const std::string& text) {
  HXValue error;
  try {
    error = fromJson(body);
  } catch (const std::runtime_error&) {  // Of a service that is not ours: its text is all there is.
  }
  constexpr std::size_t kFields = 6;
  const bool isOurs = error.isList() && error.getSize() >= kFields && error[0] == HXValue("HXError");
  if (isOurs && error[1].isString() && error[2].isString() && error[3].isString() && error[4].isString() &&
      error[5].isInt()) {
    throw HXError(error[2].asString(), error[3].asString(), error[1].asString(), error[4].asString(), error[5].toInt());
  }
  throw std::runtime_error(text);
}

}  // namespace HX::fleet
