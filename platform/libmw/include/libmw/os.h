#pragma once

#include <hxerror/api.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace mw::os {

/// Opens a file like std::fopen, and keeps the descriptor out of programs that this process starts.
///
/// @param path  UTF-8 path.
/// @param mode  As for std::fopen ("r", "wb", …).
/// @return The stream, which the caller closes with std::fclose; null on failure, with errno telling why.
HX_API std::FILE* fopen(const char* path, const char* mode) noexcept;
inline std::FILE* fopen(const std::string& path, const char* mode) noexcept { return fopen(path.c_str(), mode); }

/// Suspends the calling thread for at least `duration`; returns at once when it is zero or negative.
HX_API void sleep(std::chrono::milliseconds duration);

/// The value of an environment variable; empty when it is unset, which most variables take for the same thing.
///
/// Safe from any thread as long as no thread changes the environment meanwhile.
HX_API std::string getenv(const char* name);

}  // namespace mw::os
