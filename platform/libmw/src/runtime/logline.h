#pragma once

#include <libmw/log.h>

#include <string>
#include <vector>

namespace mw::log {

/// The record as one line without its end: `[LEVEL] CATEGORY FUNCTION: TEXT`, control characters escaped.
std::string formatLine(const LogRecord& record);

/// Writes one line to standard error, whole. A closed one, or a pipe without a reader, loses the line, no more.
void writeStderr(const std::string& line) noexcept;

/// Calls the sinks that there are now, on the calling thread, for the one that has logged the record.
///
/// @param causes  Sinks that it comes of, since they were running on that thread. It is not for them, nor is what the
///                others log meanwhile: a sink that logs would else be called for ever.
void handOver(const LogRecord& record, const std::vector<SinkId>& causes);

}  // namespace mw::log
