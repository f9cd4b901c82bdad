#pragma once

#include "commands.h"

#include <hxvalue/hxvalue.h>

#include <functional>

namespace korvo {

/// Reads the last argument of a command, JSON or `-`, and calls `use` with its value; for `-` with each line of the
/// context's input in turn, as it comes. Blank lines are skipped.
///
/// @throws InputError for wrong arguments, before anything is used; std::runtime_error naming the line of the input
///   that is no JSON, or that `use` failed with. What stood above it has been used.
void forEachValue(Context& context, Arguments& arguments, const std::function<void(const HX::HXValue&)>& use);

/// Calls `use` with each line of `lines` that is not blank.
/// @param name  Of the source, for errors.
/// @param fail  Called with "NAME line N: REASON" where a line cannot be had or `use` throws; what it throws in turn
///              ends the reading. By default that is a std::runtime_error with this text.
void forEachLine(LineSource& lines, std::string_view name, const std::function<void(std::string_view line)>& use,
                 const std::function<void(const std::string& error)>& fail = {});

}  // namespace korvo
