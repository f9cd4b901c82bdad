#pragma once

#include <hxerror/api.h>
#include <hxvalue/hxvalue.h>

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace HX {

struct GivenSettings;

/// Where something was written down; nowhere when a program gave it.
struct SettingPlace {
  std::string file;
  std::uint32_t line = 0;    ///< From 1 on.
  std::uint32_t column = 0;  ///< From 1 on, in characters.

  /// "robot.toml:12:3: ", to be put before what is wrong; empty for nowhere.
  HX_API std::string prefix() const;
  friend auto operator<=>(const SettingPlace&, const SettingPlace&) = default;
};

/// A setting as somebody gave it.
struct GivenSetting {
  HXValue value;
  SettingPlace namePlace;
  SettingPlace valuePlace;
  std::shared_ptr<const GivenSettings> table;  ///< The same as `value`, with places, when that is a map.
};

/// All that was given to one module, or to the modules of one library.
struct GivenSettings {
  SettingPlace place;  ///< Of the whole.
  std::map<std::string, GivenSetting, std::less<>> entries;

  /// Gives a program's own values.
  /// @param values  A Map; invalid for none.
  /// @return The values, without places.
  HX_API static GivenSettings of(const HXValue& values);
};

/// What is wrong with settings: everything at once, each problem one line that begins with its place.
class HX_API SettingsError : public std::runtime_error {
 public:
  /// @param problems  One at least.
  explicit SettingsError(std::vector<std::string> problems);
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  std::vector<std::string> problems_;
};

/// A setting that a module has: its name, its type, what it is when nobody says anything, and a sentence for people.
///
///     addSetting(HX::Setting::duration("period", "1s", "Time from one sample to the next.").between("10ms", "1h"));
///
/// Names are small letters, digits, `-` and `_`. Functions that declare throw std::logic_error for what can never be
/// right: a default of another type or out of its own bounds, a name that cannot be written.
///
/// @par Threads  As the standard containers.
class HX_API Setting {
 public:
  /// The values: Bool; Int or Int64; Double; String; String as `toDuration` takes it; String as `toBytes` takes it;
  /// List of Strings; any List; any Map.
  enum class Type : std::uint8_t { Flag, Integer, Number, Text, Duration, Size, Texts, List, Map };

  /// @param type       Of its value.
  /// @param name       Under which it is given and read.
  /// @param otherwise  What it is unless it is given.
  /// @param text       One sentence.
  Setting(Type type, std::string name, HXValue otherwise, std::string text);

  // The same for each type, so that declarations are read easily.
  static Setting flag(std::string name, bool otherwise, std::string text);
  static Setting integer(std::string name, std::int64_t otherwise, std::string text);
  static Setting number(std::string name, double otherwise, std::string text);
  static Setting text(std::string name, std::string otherwise, std::string text);
  static Setting duration(std::string name, std::string otherwise, std::string text);
  static Setting size(std::string name, std::string otherwise, std::string text);
  static Setting texts(std::string name, std::vector<std::string> otherwise, std::string text);
  static Setting list(std::string name, HXValue::List otherwise, std::string text);
  static Setting map(std::string name, HXValue::Map otherwise, std::string text);

  /// Bounds an integer, a number, a duration or a size.
  /// @param least  The smallest that is taken, of the setting's type.
  /// @param most   The greatest.
  /// @return This setting.
  Setting& between(HXValue least, HXValue most);
  /// Names the texts that are taken, or that each of a list of texts may be.
  /// @param choices  One at least.
  /// @return This setting.
  Setting& oneOf(std::vector<std::string> choices);
  /// A module that is not given it is refused: the default is an example of it, and what an examined library finds.
  /// @return This setting.
  Setting& required();

  const std::string& name() const { return name_; }
  Type type() const { return type_; }
  const HXValue& otherwise() const { return otherwise_; }
  const std::string& text() const { return text_; }
  bool isRequired() const { return required_; }
  /// What may be given, for people: "duration from "10ms" to "1h", required".
  std::string range() const;

  /// What a given value is read as: an integer given for a number becomes one, everything else stays.
  /// @param value  As given.
  /// @return The value of this setting's type.
  /// @throws std::runtime_error saying what is wrong with it.
  HXValue read(const HXValue& value) const;

 private:
  HXValue readType(const HXValue& value) const;
  void requireChoice(const std::string& text) const;

  Type type_;
  std::string name_;
  HXValue otherwise_;
  std::string text_;
  HXValue least_;  // Invalid where there are no bounds.
  HXValue most_;
  std::vector<std::string> choices_;
  bool required_ = false;
};

/// The type in a word: "flag", "integer", "number", "text", "duration", "size", "texts", "list" or "map".
/// @param type  The type.
/// @return The word.
HX_API std::string_view toString(Setting::Type type) noexcept;

/// A module and its settings: what `HXBroker::examineModule` finds, or what a running module has.
struct ModuleDescription {
  std::string name;
  std::vector<Setting> settings;  ///< In the order in which they were declared.
  HXValue values;                 ///< What they are now: a Map.

  /// For other processes.
  /// @return {"module":NAME, "settings":[{"name", "range", "text", "value"}]}
  HX_API HXValue toValue() const;
};

}  // namespace HX
