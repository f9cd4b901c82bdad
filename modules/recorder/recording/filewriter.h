#pragma once

#include "chunk.h"
#include "records.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace HX::recording {

/// A file that is written to its end. What is in it is whole at any moment, but for the last record.
///
/// @par Threads  One at a time.
class OutputFile {
 public:
  /// @throws RecordingError when it is there already, or cannot be made.
  explicit OutputFile(std::filesystem::path path);
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  /// @throws RecordingError when not all could be written; then none of it is in the file.
  void append(std::string_view bytes);
  /// Returns once what was appended survives a loss of power.
  void sync();
  std::uint64_t size() const { return size_; }
  /// Of all that was appended.
  std::uint32_t crc() const { return crc_; }
  const std::filesystem::path& path() const { return path_; }

 private:
  [[noreturn]] void fail(int error) const;

  const std::filesystem::path path_;
  const int file_;
  std::uint64_t size_ = 0;
  std::uint32_t crc_ = 0;
};

/// Writes chunks to a file, each with its index, and at the end what readers need to find their way.
///
/// Until `finish` the file can be read from its start; readers that want the index need `mend`.
///
/// @par Threads  One at a time.
class FileWriter {
 public:
  /// @param path      A file that is not there yet.
  /// @param about     Says what the recording is: the metadata `korvo`.
  /// @param hasIndex  Whether viewers can go to a moment; costs 16 bytes for each message.
  /// @throws RecordingError when it cannot be written.
  FileWriter(std::filesystem::path path, const TextMap& about, bool hasIndex);

  void add(const SealedChunk& chunk);
  void add(const Metadata& metadata);
  /// Returns once what was added survives a loss of power.
  void sync() { file_.sync(); }
  /// Writes the summary, and returns once all is on the disk. Nothing can be added afterwards.
  void finish();

  std::uint64_t size() const { return file_.size(); }
  std::uint64_t messages() const { return statistics_.messages; }
  const std::filesystem::path& path() const { return file_.path(); }

 private:
  void appendIndex(const SealedChunk& chunk, ChunkIndex& summary, std::string& out) const;

  OutputFile file_;
  const bool hasIndex_;
  Statistics statistics_;
  Definitions definitions_;
  std::vector<ChunkIndex> chunks_;
  std::string metadataIndex_;
  std::string buffer_;
};

}  // namespace HX::recording
