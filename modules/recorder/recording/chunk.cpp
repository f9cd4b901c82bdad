#include "chunk.h"

#include <algorithm>
#include <utility>

namespace HX::recording {
namespace {

SealedChunk described(std::string record, const Chunk& chunk) {
  SealedChunk sealed;
  sealed.summary.start = chunk.start;
  sealed.summary.end = chunk.end;
  sealed.summary.length = record.size();
  sealed.summary.compression = chunk.compression;
  sealed.summary.compressedSize = chunk.records.size();
  sealed.summary.uncompressedSize = chunk.uncompressedSize;
  sealed.record = std::move(record);
  return sealed;
}

}  // namespace

void OpenChunk::add(const Message& message) {
  start = index.empty() ? message.logTime : std::min(start, message.logTime);
  end = std::max(end, message.logTime);
  index.push_back({message.channel, message.logTime, records.size()});
  write(records, message);
}

SealedChunk seal(OpenChunk&& chunk, Compressor& compressor) {
  std::string packed = compressor.compress(chunk.records);
  const bool isSmaller = packed.size() < chunk.records.size();
  Chunk head;
  head.start = chunk.start;
  head.end = chunk.end;
  head.uncompressedSize = chunk.records.size();
  head.uncompressedCrc = crc32(chunk.records);
  head.compression = isSmaller ? toString(compressor.compression()) : "";
  head.records = isSmaller ? std::string_view(packed) : std::string_view(chunk.records);
  std::string record;
  write(record, head);
  SealedChunk sealed = described(std::move(record), head);
  sealed.index = std::move(chunk.index);
  sealed.definitions = std::move(chunk.definitions);
  chunk = {};
  return sealed;
}

SealedChunk examine(std::string record, std::string_view records) {
  const Chunk head = readChunk(std::string_view(record).substr(kRecordHead));
  SealedChunk sealed = described(std::move(record), head);
  forEachRecord(records, [&](const Record& found) {
    const std::string_view whole = records.substr(found.place, kRecordHead + found.content.size());
    if (found.op == Op::Schema) sealed.definitions.schemas.emplace(readSchema(found.content).id, whole);
    if (found.op == Op::Channel) sealed.definitions.channels.emplace(readChannel(found.content).id, whole);
    if (found.op != Op::Message) return;
    const Message message = readMessage(found.content);
    sealed.index.push_back({message.channel, message.logTime, found.place});
  });
  return sealed;
}

}  // namespace HX::recording
