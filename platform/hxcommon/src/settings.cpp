#include <hxcommon/settings.h>
#include <hxcommon/suggestion.h>
#include <hxcommon/units.h>

#include <algorithm>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace HX {
namespace {

std::string joined(const std::vector<std::string>& problems) { return fmt::format("{}", fmt::join(problems, "\n")); }

bool isNameable(std::string_view name) {
  return !name.empty() && std::ranges::all_of(name, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

/// As it is written down and read again: an Int where that is enough.
HXValue smallest(std::int64_t number) {
  const auto small = static_cast<std::int32_t>(number);
  return small == number ? HXValue(small) : HXValue(number);
}

bool isInteger(const HXValue& value) { return value.isInt() || value.isInt64(); }

/// Values of an ordered type, as numbers that can be compared. What is read has the type.
double magnitude(Setting::Type type, const HXValue& value) {
  switch (type) {
    case Setting::Type::Duration:
      return static_cast<double>(toDuration(value).count());
    case Setting::Type::Size:
      return static_cast<double>(toBytes(value));
    default:
      return value.toDouble();
  }
}

bool isOrdered(Setting::Type type) {
  using Type = Setting::Type;
  return type == Type::Integer || type == Type::Number || type == Type::Duration || type == Type::Size;
}

}  // namespace

std::string SettingPlace::prefix() const {
  return file.empty() ? std::string() : fmt::format("{}:{}:{}: ", file, line, column);
}

GivenSettings GivenSettings::of(const HXValue& values) {
  GivenSettings given;
  if (!values.isValid()) return given;
  for (const auto& [name, value] : values.asMap()) {
    auto table = value.isMap() ? std::make_shared<const GivenSettings>(of(value)) : nullptr;
    given.entries.emplace(name, GivenSetting{value, {}, {}, std::move(table)});
  }
  return given;
}

SettingsError::SettingsError(std::vector<std::string> problems)
    : std::runtime_error(joined(problems)), problems_(std::move(problems)) {}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a value is copied at the cost of a count.
Setting::Setting(Type type, std::string name, HXValue otherwise, std::string text)
    : type_(type), name_(std::move(name)), text_(std::move(text)) {
  if (!isNameable(name_)) throw std::logic_error(fmt::format("{} cannot be the name of a setting", name_));
  try {
    otherwise_ = read(otherwise);
  } catch (const std::exception& error) {
    throw std::logic_error(fmt::format("the default of setting {}: {}", name_, error.what()));
  }
}

Setting Setting::flag(std::string name, bool otherwise, std::string text) {
  return {Type::Flag, std::move(name), otherwise, std::move(text)};
}
Setting Setting::integer(std::string name, std::int64_t otherwise, std::string text) {
  return {Type::Integer, std::move(name), otherwise, std::move(text)};
}
Setting Setting::number(std::string name, double otherwise, std::string text) {
  return {Type::Number, std::move(name), otherwise, std::move(text)};
}
Setting Setting::text(std::string name, std::string otherwise, std::string text) {
  return {Type::Text, std::move(name), std::move(otherwise), std::move(text)};
}
Setting Setting::duration(std::string name, std::string otherwise, std::string text) {
  return {Type::Duration, std::move(name), std::move(otherwise), std::move(text)};
}
Setting Setting::size(std::string name, std::string otherwise, std::string text) {
  return {Type::Size, std::move(name), std::move(otherwise), std::move(text)};
}
// NOLINTNEXTLINE(performance-unnecessary-value-param): called with a list that is written out.
Setting Setting::texts(std::string name, std::vector<std::string> otherwise, std::string text) {
  return {Type::Texts, std::move(name), HXValue(otherwise), std::move(text)};
}
Setting Setting::list(std::string name, HXValue::List otherwise, std::string text) {
  return {Type::List, std::move(name), std::move(otherwise), std::move(text)};
}
Setting Setting::map(std::string name, HXValue::Map otherwise, std::string text) {
  return {Type::Map, std::move(name), std::move(otherwise), std::move(text)};
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as above.
Setting& Setting::between(HXValue least, HXValue most) {
  try {
    if (!isOrdered(type_)) throw std::runtime_error(fmt::format("a {} has none", toString(type_)));
    const auto read = std::pair(readType(least), readType(most));
    if (magnitude(type_, read.first) > magnitude(type_, read.second)) throw std::runtime_error("they are exchanged");
    std::tie(least_, most_) = read;
    this->read(otherwise_);
  } catch (const std::exception& error) {
    throw std::logic_error(fmt::format("the bounds of setting {}: {}", name_, error.what()));
  }
  return *this;
}

Setting& Setting::oneOf(std::vector<std::string> choices) {
  choices_ = std::move(choices);
  try {
    if (type_ != Type::Text && type_ != Type::Texts) throw std::runtime_error("are for texts");
    read(otherwise_);
  } catch (const std::exception& error) {
    throw std::logic_error(fmt::format("the choices of setting {}: {}", name_, error.what()));
  }
  return *this;
}

Setting& Setting::required() {
  required_ = true;
  return *this;
}

std::string Setting::range() const {
  std::string range(toString(type_));
  if (least_.isValid()) range += fmt::format(" from {} to {}", least_.toString(), most_.toString());
  if (!choices_.empty()) range += fmt::format(": {}", fmt::join(choices_, ", "));
  if (required_) range += ", required";
  return range;
}

HXValue Setting::read(const HXValue& value) const {
  HXValue read = readType(value);
  if (least_.isValid()) {
    const double number = magnitude(type_, read);
    // Turned round, so that what is no number is out of bounds.
    if (!(number >= magnitude(type_, least_) && number <= magnitude(type_, most_))) {
      throw std::runtime_error(
          fmt::format("{} is not from {} to {}", value.toString(), least_.toString(), most_.toString()));
    }
  }
  return read;
}

HXValue Setting::readType(const HXValue& value) const {
  const auto require = [&](bool fits, const char* wanted) {
    if (!fits) throw std::runtime_error(fmt::format("{} is no {}", value.toString(), wanted));
  };
  switch (type_) {
    case Type::Flag:
      require(value.isBool(), "flag: write true or false");
      break;
    case Type::Integer:
      require(isInteger(value), "integer");
      return smallest(value.toInt64());
    case Type::Number:
      require(isInteger(value) || value.isFloat() || value.isDouble(), "number");
      return value.toDouble();
    case Type::Text:
      require(value.isString(), "text: write it in quotes");
      requireChoice(value.asString());
      break;
    case Type::Duration:
      toDuration(value);
      break;
    case Type::Size:
      toBytes(value);
      break;
    case Type::Texts:
      require(value.isList() && std::ranges::all_of(value.asList(), &HXValue::isString),
              R"(list of texts: write ["…", "…"])");
      for (const HXValue& element : value.asList()) requireChoice(element.asString());
      break;
    case Type::List:
      require(value.isList(), "list");
      break;
    case Type::Map:
      require(value.isMap(), "table");
      break;
  }
  return value;
}

void Setting::requireChoice(const std::string& text) const {
  if (choices_.empty() || std::ranges::count(choices_, text) > 0) return;
  const std::string suggestion = didYouMean(text, choices_);
  throw std::runtime_error(
      fmt::format("no {}{}", HXValue(text).toString(),
                  suggestion.empty() ? fmt::format("; there is {}", fmt::join(choices_, ", ")) : suggestion));
}

HXValue ModuleDescription::toValue() const {
  HXValue::List list;
  for (const Setting& declared : settings) {
    HXValue::Map setting{{"name", declared.name()}, {"range", declared.range()}, {"text", declared.text()}};
    if (const HXValue* const value = values.find(declared.name())) setting.emplace("value", *value);
    list.push_back(HXValue::map(std::move(setting)));
  }
  return HXValue::map({{"module", name}, {"settings", HXValue::list(std::move(list))}});
}

std::string_view toString(Setting::Type type) noexcept {
  static constexpr std::string_view kWords[] = {"flag", "integer", "number", "text", "duration",
                                                "size", "texts",   "list",   "map"};
  return kWords[static_cast<std::size_t>(type)];
}

}  // namespace HX
