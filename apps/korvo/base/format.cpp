#include "format.h"

#include <hxvalue/json.h>
#include <libmw/genericobject.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <fmt/format.h>

namespace korvo {

using HX::HXValue;

std::string excerpt(std::string_view text) {
  constexpr std::size_t kLongest = 64;
  if (text.size() <= kLongest) return std::string(text);
  std::size_t end = kLongest;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) --end;
  return fmt::format("{}...", text.substr(0, end));
}

std::string formatName(std::string_view name, NameReader reader) {
  const auto isBlank = [](char c) { return c == ' '; };
  const HX::JsonText quoted = HX::toJsonText(HXValue(name));
  bool needsQuotes = name.empty() || quoted.replaced || escapeControls(name) != name || name.front() == '"';
  if (reader == NameReader::Shell) {
    needsQuotes = needsQuotes || isBlank(name.front()) || isBlank(name.back());
  } else {
    needsQuotes = needsQuotes || std::ranges::any_of(name, isBlank) || name.starts_with("--") ||
                  std::string_view("[{").find(name.front()) != std::string_view::npos;
  }
  return needsQuotes ? quoted.text : std::string(name);
}

namespace {

std::string formatPointer(const void* at) {
  // Pointers to any type look the same in memory here; a copy of the bytes needs no type.
  std::uintptr_t address = 0;
  std::memcpy(&address, at, sizeof(address));
  return fmt::format("\"{:#x}\"", address);
}

std::string formatObject(const mw::AnyReference& reference) {
  const mw::AnyObject object = reference.type()->toObject(reference.data());
  if (!object) return "null";
  return JsonObject()
      .add("object", object->metaObject().typeName())
      .add("id", static_cast<std::int64_t>(object->number()))
      .text();
}

}  // namespace

std::optional<std::string> formatResult(const mw::AnyValue& result) {
  const mw::AnyReference content = result.reference().content();
  if (!content) return std::nullopt;
  HXValue value;
  if (content.toValue(value)) return HX::toJson(value);
  if (content.type()->kind == mw::TypeKind::Pointer) return formatPointer(content.data());
  if (content.type()->toObject) return formatObject(content);
  return JsonObject().add("type", content.type()->name).text();
}

std::string formatTime(mw::SystemTimePoint time) {
  using namespace std::chrono;
  const auto second = floor<seconds>(time);
  const std::time_t sinceEpoch = second.time_since_epoch().count();
  std::tm local{};
  localtime_r(&sinceEpoch, &local);
  const long offset = local.tm_gmtoff / 60;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}{}{:02}:{:02}", local.tm_year + 1900, local.tm_mon + 1,
                     local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                     duration_cast<microseconds>(time - second).count(), offset < 0 ? '-' : '+', std::abs(offset) / 60,
                     std::abs(offset) % 60);
}

std::string formatDuration(std::chrono::nanoseconds duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  if (seconds < 1e-3) return fmt::format("{:.3g}us", seconds * 1e6);
  if (seconds < 1) return fmt::format("{:.3g}ms", seconds * 1e3);
  if (seconds < 120) return fmt::format("{:.3g}s", seconds);
  if (seconds < 7200) return fmt::format("{:.3g}min", seconds / 60);
  return seconds < 48 * 3600 ? fmt::format("{:.3g}h", seconds / 3600) : fmt::format("{:.0f}d", seconds / 86400);
}

Stamped toStamped(const HXValue& triple) {
  if (triple.getSize() != 3 || !triple.isList()) {
    throw std::runtime_error("expected [value, seconds, microseconds], and got " + excerpt(triple.toString()));
  }
  const auto time = std::chrono::seconds(triple[1].toInt64()) + std::chrono::microseconds(triple[2].toInt64());
  return {triple[0], mw::SystemTimePoint(time)};
}

JsonObject& JsonObject::add(std::string_view name, const HXValue& value) { return addText(name, HX::toJson(value)); }

JsonObject& JsonObject::addText(std::string_view name, std::string_view json) {
  if (text_.size() > 1) text_ += ',';
  text_ += HX::toJson(HXValue(name));
  text_ += ':';
  text_ += json;
  return *this;
}

JsonObject& JsonObject::addValue(const HXValue& value) {
  const HX::JsonText json = HX::toJsonText(value);
  addText("value", json.text);
  return json.replaced ? add("replaced", true) : *this;
}

}  // namespace korvo
