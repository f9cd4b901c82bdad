#pragma once

#include <hxcommon/settings.h>

#include <memory>
#include <string>
#include <vector>

namespace HX {

/// The settings of one module, from its first declaration to the end of its constructor, and as they stay.
class ModuleSettings {
 public:
  /// @param label  Names the settings in problems: "arm", of which one is "arm.period".
  /// @param given  None when nobody gave any.
  /// @param isExample  What is required may be missing.
  /// @param isAlone    What was given is for no other module: also tables that are not declared are wrong.
  ModuleSettings(std::string label, std::shared_ptr<const GivenSettings> given, bool isExample, bool isAlone);

  /// @throws std::logic_error for one that is declared already.
  void declare(Setting setting);
  /// The module does not take what a declared one is set to.
  /// @throws std::logic_error for one that is not declared.
  void refuse(const std::string& name, const std::string& problem);
  /// What was declared, as given or by default.
  /// @throws SettingsError when something among them is wrong, with all that is wrong. What will only be declared after
  ///         that counts as unknown, as the module has not come so far.
  const HXValue& values() const;
  /// Nothing is declared any more, so what was not declared is wrong.
  /// @throws SettingsError with all that is wrong.
  void close() const;

  const std::vector<Setting>& declared() const { return declared_; }

 private:
  [[noreturn]] void throwAll() const;
  std::vector<std::string> unknown() const;
  std::string named(const SettingPlace& place, const std::string& name) const;
  /// What was given for it, or nothing.
  const GivenSetting* findGiven(const std::string& name) const;

  const std::string label_;
  const std::shared_ptr<const GivenSettings> given_;
  const bool isExample_;
  const bool isAlone_;
  std::vector<Setting> declared_;
  HXValue values_ = HXValue::map();
  std::vector<std::string> problems_;
};

}  // namespace HX
