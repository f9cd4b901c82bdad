#pragma once

#include <hxcommon/settings.h>

#include <string>
#include <utility>
#include <vector>

namespace korvo {

/// What is wrong with a file, so that all of it is told at once, from the first line to the last.
class Problems {
 public:
  void add(const HX::SettingPlace& place, const std::string& text) { all_.emplace_back(place, text); }
  /// Each with its place before it.
  std::vector<std::string> lines() const;
  /// @throws HX::SettingsError when there are any.
  void throwIfAny() const;

 private:
  std::vector<std::pair<HX::SettingPlace, std::string>> all_;
};

}  // namespace korvo
