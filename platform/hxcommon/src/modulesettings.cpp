#include "modulesettings.h"

#include <hxcommon/suggestion.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace HX {
namespace {

/// What to write instead of `name`.
std::string insteadOf(std::string_view name, const std::vector<std::string>& names) {
  if (names.empty()) return "; there are none";
  const std::string suggestion = didYouMean(name, names);
  return suggestion.empty() ? fmt::format("; there is {}", fmt::join(names, ", ")) : suggestion;
}

}  // namespace

ModuleSettings::ModuleSettings(std::string label, std::shared_ptr<const GivenSettings> given, bool isExample,
                               bool isAlone)
    : label_(std::move(label)), given_(std::move(given)), isExample_(isExample), isAlone_(isAlone) {}

std::string ModuleSettings::named(const SettingPlace& place, const std::string& name) const {
  return fmt::format("{}{}.{}", place.prefix(), label_, name);
}

const GivenSetting* ModuleSettings::findGiven(const std::string& name) const {
  if (!given_) return nullptr;
  const auto found = given_->entries.find(name);
  return found == given_->entries.end() ? nullptr : &found->second;
}

void ModuleSettings::declare(Setting setting) {
  const std::string& name = setting.name();
  if (std::ranges::count(declared_, name, &Setting::name) > 0) {
    throw std::logic_error(fmt::format("{} is declared twice", named({}, name)));
  }
  const GivenSetting* const given = findGiven(name);
  try {
    if (given) {
      values_.mapSet(name, setting.read(given->value));
    } else if (setting.isRequired() && !isExample_) {
      problems_.push_back(
          fmt::format("{} is missing: {}", named(given_ ? given_->place : SettingPlace(), name), setting.text()));
    } else {
      values_.mapSet(name, setting.otherwise());
    }
  } catch (const std::exception& error) {
    problems_.push_back(fmt::format("{}: {}", named(given->valuePlace, name), error.what()));
  }
  declared_.push_back(std::move(setting));
}

void ModuleSettings::refuse(const std::string& name, const std::string& problem) {
  if (std::ranges::count(declared_, name, &Setting::name) == 0) {
    throw std::logic_error(fmt::format("{} is refused, and not declared", named({}, name)));
  }
  const GivenSetting* const given = findGiven(name);
  problems_.push_back(fmt::format("{}: {}", named(given ? given->valuePlace : SettingPlace(), name), problem));
}

const HXValue& ModuleSettings::values() const {
  if (!problems_.empty()) throwAll();
  return values_;
}

void ModuleSettings::close() const {
  if (!problems_.empty() || !unknown().empty()) throwAll();
}

void ModuleSettings::throwAll() const {
  std::vector<std::string> all = problems_;
  std::ranges::move(unknown(), std::back_inserter(all));
  throw SettingsError(std::move(all));
}

std::vector<std::string> ModuleSettings::unknown() const {
  std::vector<std::string> problems;
  if (!given_) return problems;
  std::vector<std::string> names;
  for (const Setting& setting : declared_) names.push_back(setting.name());
  for (const auto& [name, given] : given_->entries) {
    if (std::ranges::count(names, name) > 0 || (given.table && !isAlone_)) continue;
    problems.push_back(fmt::format("{}: no such setting{}", named(given.namePlace, name), insteadOf(name, names)));
  }
  return problems;
}

}  // namespace HX
