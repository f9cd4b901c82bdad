#include "loglevels.h"

#include <algorithm>

namespace korvo {

std::vector<std::string> levelNames() {
  std::vector<std::string> names;
  for (int level = 0; level <= static_cast<int>(mw::LogLevel::Debug); ++level) {
    names.emplace_back(mw::toString(static_cast<mw::LogLevel>(level)));
  }
  return names;
}

mw::LogLevel levelOf(const std::string& name) {
  const auto names = levelNames();
  return static_cast<mw::LogLevel>(std::ranges::find(names, name) - names.begin());
}

}  // namespace korvo
