#include "filename.h"

#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace HX::recording {

std::string dateText() { return fmt::format("{:%Y%m%d-%H%M%S}", fmt::localtime(std::time(nullptr))); }

std::string defaultFileName() { return fmt::format("korvo-{}.mcap", dateText()); }

}  // namespace HX::recording
