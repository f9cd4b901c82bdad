#pragma once

#include "compression.h"
#include "records.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace HX::recording {

/// Where a message stands in its chunk.
struct IndexEntry {
  std::uint16_t channel = 0;
  std::uint64_t time = 0;
  std::uint64_t place = 0;
};

/// The records of schemas and channels, by their numbers.
struct Definitions {
  std::map<std::uint16_t, std::string> schemas;
  std::map<std::uint16_t, std::string> channels;
};

/// A chunk that is being filled: records as they stand in the file.
struct OpenChunk {
  std::string records;
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::vector<IndexEntry> index;
  Definitions definitions;  ///< That are among the records.

  bool isEmpty() const { return index.empty(); }
  void add(const Message& message);
};

/// A chunk as the file has it.
struct SealedChunk {
  std::string record;  ///< With its head.
  ChunkIndex summary;  ///< But for its place.
  std::vector<IndexEntry> index;
  Definitions definitions;
};

/// @param compressor  Whose compression is taken, unless it makes the chunk larger.
SealedChunk seal(OpenChunk&& chunk, Compressor& compressor);

/// Finds out what stands in a chunk of a file, so that it can be indexed and counted.
/// @param record   With its head; kept.
/// @param records  What it has when it is decompressed.
/// @throws RecordingError when they are no records.
SealedChunk examine(std::string record, std::string_view records);

}  // namespace HX::recording
