#include "problems.h"

#include <algorithm>

namespace korvo {

void Problems::throwIfAny() const {
  if (all_.empty()) return;
  auto sorted = all_;
  std::ranges::stable_sort(sorted, {}, &std::pair<HX::SettingPlace, std::string>::first);
  std::vector<std::string> lines;
  for (const auto& [place, text] : sorted) lines.push_back(place.prefix() + text);
  throw HX::SettingsError(std::move(lines));
}

}  // namespace korvo
