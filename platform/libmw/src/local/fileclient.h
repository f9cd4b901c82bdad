#pragma once

#include <libmw/file.h>

#include <string>

namespace mw::local {

/// Shows a ticket at the socket of a broker's files.
/// @return The file. @throws std::runtime_error when there is none.
File fetchFrom(const std::string& path, const Ticket& ticket);
/// Leaves a copy of a file there.
/// @return By what the broker's process takes it. @throws std::runtime_error when it is not taken.
Ticket leaveAt(const std::string& path, const File& file);

}  // namespace mw::local
