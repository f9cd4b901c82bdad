#pragma once

#include <hxcommon/settings.h>

#include <string>

namespace korvo {

/// Reads a TOML file: each table as a map, each integer as the smallest of the memory's types that holds it.
///
/// @throws HX::SettingsError with the place of an error of syntax, or of dates and times, which no value is.
/// @throws std::runtime_error when the file cannot be read.
HX::GivenSettings readToml(const std::string& path);

/// What a word of a command line means as a value of such a file: 5, true, ["a", "b"]; what is none is a text, which
/// needs no quotes then.
HX::HXValue readTomlValue(const std::string& text);

}  // namespace korvo
