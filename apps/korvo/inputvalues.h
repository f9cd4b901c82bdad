#pragma once

#include "commands.h"

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace korvo {

/// Reads the last argument of a command, JSON or `-`, and calls `use` with its value; for `-` with each line of the
/// context's input in turn, as it comes. Blank lines are skipped.
///
/// @throws InputError for wrong arguments, before anything is used; std::runtime_error naming the line of the input
///   that is no JSON, or that `use` failed with. What stood above it has been used.
void forEachValue(Context& context, Arguments& arguments, const std::function<void(const HX::HXValue&)>& use);

bool isBlank(std::string_view line);

/// "SOURCE line N: REASON"
std::string lineError(std::string_view source, std::size_t number, std::string_view reason);

}  // namespace korvo
