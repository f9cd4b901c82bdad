#pragma once

#include "bytes.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The records of MCAP files (mcap.dev), as many of them as recordings have.
namespace HX::recording {

inline constexpr std::string_view kMagic{"\x89MCAP0\r\n", 8};
inline constexpr std::string_view kProfile = "korvo";
inline constexpr std::string_view kLibrary = "korvo";

enum class Op : std::uint8_t {
  Header = 0x01,
  Footer = 0x02,
  Schema = 0x03,
  Channel = 0x04,
  Message = 0x05,
  Chunk = 0x06,
  MessageIndex = 0x07,
  ChunkIndex = 0x08,
  AttachmentIndex = 0x0A,
  Statistics = 0x0B,
  Metadata = 0x0C,
  MetadataIndex = 0x0D,
  SummaryOffset = 0x0E,
  DataEnd = 0x0F,
};

/// What stands before each record: its kind and the length of what follows.
inline constexpr std::uint64_t kRecordHead = 9;
/// The footer with its head.
inline constexpr std::uint64_t kFooterSize = kRecordHead + 20;

using TextMap = std::map<std::string, std::string, std::less<>>;

struct Schema {
  std::uint16_t id = 0;  ///< From 1 on.
  std::string name;
  std::string text;  ///< JSON Schema.
};

struct Channel {
  std::uint16_t id = 0;
  std::uint16_t schema = 0;
  std::string topic;
  TextMap metadata;
};

/// Good as long as the bytes that it was read from.
struct Message {
  std::uint16_t channel = 0;
  std::uint32_t sequence = 0;
  std::uint64_t logTime = 0;      ///< Nanoseconds since the epoch, as all times.
  std::uint64_t publishTime = 0;  ///< The same.
  std::string_view data;
};

/// The head of a chunk, and its content as it is stored.
struct Chunk {
  std::uint64_t start = 0;  ///< The least log time in it.
  std::uint64_t end = 0;    ///< The greatest.
  std::uint64_t uncompressedSize = 0;
  std::uint32_t uncompressedCrc = 0;
  std::string_view compression;
  std::string_view records;
};

struct ChunkIndex {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t place = 0;                                        ///< Of the chunk in the file.
  std::uint64_t length = 0;                                       ///< With its head.
  std::vector<std::pair<std::uint16_t, std::uint64_t>> channels;  ///< With the place of each one's index.
  std::uint64_t indexLength = 0;
  std::string compression;
  std::uint64_t compressedSize = 0;
  std::uint64_t uncompressedSize = 0;
};

struct Statistics {
  std::uint64_t messages = 0;
  std::uint16_t schemas = 0;
  std::uint32_t channels = 0;
  std::uint32_t metadata = 0;
  std::uint32_t chunks = 0;
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::map<std::uint16_t, std::uint64_t> channelMessages;
};

struct Metadata {
  std::string name;
  TextMap entries;
};

struct Footer {
  std::uint64_t summary = 0;         ///< Place of the first record of the summary; 0 for none.
  std::uint64_t summaryOffsets = 0;  ///< Of the first offset of a group in it.
  std::uint32_t summaryCrc = 0;
};

/// Appends one record.
/// @param write  Appends its content.
void writeRecord(std::string& out, Op op, const std::function<void(ByteWriter& writer)>& write);
void writeHeader(std::string& out);
void write(std::string& out, const Schema& schema);
void write(std::string& out, const Channel& channel);
void write(std::string& out, const Message& message);
void write(std::string& out, const Chunk& chunk);
void write(std::string& out, const ChunkIndex& index);
void write(std::string& out, const Statistics& statistics);
void write(std::string& out, const Metadata& metadata);

// Each reads the content of a record without its head, and throws RecordingError for one that is cut short.
Schema readSchema(std::string_view content);
Channel readChannel(std::string_view content);
Message readMessage(std::string_view content);
Chunk readChunk(std::string_view content);
ChunkIndex readChunkIndex(std::string_view content);
Statistics readStatistics(std::string_view content);
Metadata readMetadata(std::string_view content);
Footer readFooter(std::string_view content);

/// A record within bytes: its kind, and its content.
struct Record {
  Op op = Op::Header;
  std::string_view content;
  std::uint64_t place = 0;  ///< Of its head, within the bytes.
};
/// Tells the records of a chunk's content, or of a summary, one after another.
/// @throws RecordingError when the last one is cut short.
void forEachRecord(std::string_view bytes, const std::function<void(const Record& record)>& use);

/// @param before  The sum of what stands before `bytes`; 0 for nothing.
std::uint32_t crc32(std::string_view bytes, std::uint32_t before = 0);

}  // namespace HX::recording
