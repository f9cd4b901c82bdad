#pragma once

#include <string>

namespace HX::recording {

/// "20260329-120000": now, where this machine stands.
std::string dateText();
/// "korvo-20260329-120000.mcap", for a recording that was given no name.
std::string defaultFileName();

}  // namespace HX::recording
