#pragma once

#include <libmw/log.h>

#include <string>

namespace mw::log {

/// The record as one line without its end: `[LEVEL] CATEGORY FUNCTION: TEXT`, control characters escaped.
std::string formatLine(const LogRecord& record);

/// Writes one line to standard error, whole. A closed one, or a pipe without a reader, loses the line, no more.
void writeStderr(const std::string& line) noexcept;

/// Calls the sinks that there are now, on the calling thread.
void tellSinks(const LogRecord& record);

}  // namespace mw::log
