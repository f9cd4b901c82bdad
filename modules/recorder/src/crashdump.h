#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

/// What is written when the process dies of a signal: bytes that lie ready, in order, and nothing is computed any more.
/// There is one for the process, for whoever armed it first.
///
/// @par Threads  One at a time; the handler may run on any thread meanwhile. What it reads may just be replaced: then
///   part of what it writes is of no use, which its checksum shows, and no harm is done, for a system call that is
///   given a wrong address only fails.
namespace HX::recording::crashdump {

/// Chunks at most; the oldest are left out beyond.
inline constexpr std::size_t kSlots = 4096;

/// Has the handlers of fatal signals write to a file, and then do what they did before.
/// @param path   Written over when it is there. Kept up to 4 KiB of it.
/// @param begin  What stands before all chunks. Kept.
/// @return False when it is armed already.
bool arm(const std::filesystem::path& path, std::string begin);
void disarm() noexcept;

/// Appends a chunk. It must stay until `drop` has been called for it, or `disarm`.
void push(std::string_view chunk) noexcept;
/// Leaves the oldest chunk out.
void drop() noexcept;
/// What is being filled and comes last: its bytes as they are now, or nothing while they change.
void setOpen(std::string_view records) noexcept;

}  // namespace HX::recording::crashdump
