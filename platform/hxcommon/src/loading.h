#pragma once

#include <hxcommon/settings.h>

#include <memory>
#include <string>
#include <vector>

namespace HX {

class HXModuleCore;

/// What the calling thread makes of a library while one lives: the modules that it registers, so that a library that
/// fails takes its own back and not those that another thread loads meanwhile; and the settings that are theirs.
class Loading {
 public:
  /// @param library      The name of the settings.
  /// @param given        None when nobody gave any.
  /// @param examineOnly  Modules are constructed, described and dropped.
  Loading(std::string library, std::shared_ptr<const GivenSettings> given, bool examineOnly);
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;
  ~Loading();

  /// Null when the calling thread loads nothing.
  static Loading* current();

  bool examines() const { return examineOnly_; }
  const std::string& library() const { return library_; }
  /// What is given to a module of this library: a table of its own name within the library's, or the library's.
  /// @param label  Set to how its settings are called.
  std::shared_ptr<const GivenSettings> settingsFor(const std::string& module, std::string& label);
  /// A module has been registered, or would have been.
  void note(const std::shared_ptr<HXModuleCore>& module, ModuleDescription description);

  const std::vector<std::shared_ptr<HXModuleCore>>& modules() const { return modules_; }
  const std::vector<ModuleDescription>& descriptions() const { return descriptions_; }
  /// @throws SettingsError for settings that no module of the library has.
  void requireAllTaken() const;

 private:
  bool isTaken(const std::string& name) const;

  static thread_local Loading* current_;
  Loading* const outer_;
  const std::string library_;
  const std::shared_ptr<const GivenSettings> given_;
  const bool examineOnly_;
  std::vector<std::shared_ptr<HXModuleCore>> modules_;
  std::vector<ModuleDescription> descriptions_;
};

}  // namespace HX
