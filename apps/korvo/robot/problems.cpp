#include "problems.h"

#include <algorithm>

namespace korvo {

std::vector<std::string> Problems::lines() const {
  auto sorted = all_;
  std::ranges::stable_sort(sorted, {}, &std::pair<HX::SettingPlace, std::string>::first);
  std::vector<std::string> lines;
  for (const auto& [place, text] : sorted) lines.push_back(place.prefix() + text);
  return lines;
}

void Problems::throwIfAny() const {
  if (!all_.empty()) throw HX::SettingsError(lines());
}

}  // namespace korvo
