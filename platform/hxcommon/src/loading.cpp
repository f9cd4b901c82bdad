#include "loading.h"

#include <hxcommon/suggestion.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace HX {

thread_local Loading* Loading::current_ = nullptr;

Loading::Loading(std::string library, std::shared_ptr<const GivenSettings> given, bool examineOnly)
    : outer_(std::exchange(current_, this)),
      library_(std::move(library)),
      given_(std::move(given)),
      examineOnly_(examineOnly) {}

Loading::~Loading() { current_ = outer_; }

Loading* Loading::current() { return current_; }

std::shared_ptr<const GivenSettings> Loading::settingsFor(const std::string& module, std::string& label) {
  label = library_;
  if (!given_) return nullptr;
  const auto own = given_->entries.find(module);
  if (own == given_->entries.end() || !own->second.table) return given_;
  label += "." + module;
  return own->second.table;
}

void Loading::note(const std::shared_ptr<HXModuleCore>& module, ModuleDescription description) {
  if (module) modules_.push_back(module);
  descriptions_.push_back(std::move(description));
}

bool Loading::isTaken(const std::string& name) const {
  return std::ranges::any_of(descriptions_, [&](const ModuleDescription& module) {
    return module.name == name || std::ranges::count(module.settings, name, &Setting::name) > 0;
  });
}

void Loading::requireAllTaken() const {
  if (!given_) return;
  std::vector<std::string> names;
  for (const ModuleDescription& module : descriptions_) {
    names.push_back(module.name);
    for (const Setting& setting : module.settings) names.push_back(setting.name());
  }
  std::vector<std::string> problems;
  for (const auto& [name, given] : given_->entries) {
    if (isTaken(name)) continue;
    problems.push_back(fmt::format("{}{}.{}: no such setting, nor a module of that name{}", given.namePlace.prefix(),
                                   library_, name, didYouMean(name, names)));
  }
  if (!problems.empty()) throw SettingsError(std::move(problems));
}

}  // namespace HX
