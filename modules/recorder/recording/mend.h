#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace HX::recording {

/// What became of a file that was mended.
struct Mended {
  std::uint64_t messages = 0;
  std::uint64_t lostBytes = 0;          ///< At the end, which were no whole record.
  std::vector<std::string> complaints;  ///< What could not be read, each one line.

  bool isAll() const { return lostBytes == 0 && complaints.empty(); }
};

/// Writes what can be read of a recording to a new file, with index and summary, and reads that again before it says
/// so.
/// @param from  A recording, whole, cut off at any byte, or damaged; stays as it is.
/// @param to    A file that is not there yet; it is not there either when this fails.
/// @throws RecordingError when nothing of `from` can be read, or `to` not be written.
Mended mend(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace HX::recording
