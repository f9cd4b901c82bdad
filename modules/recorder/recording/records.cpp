#include "records.h"

#include <zlib.h>

namespace HX::recording {
namespace {

void writeMap(ByteWriter& writer, const TextMap& map) {
  std::string pairs;
  ByteWriter content(pairs);
  for (const auto& [name, text] : map) content.text(name).text(text);
  writer.text(pairs);
}

TextMap readMap(ByteReader& reader) {
  TextMap map;
  for (ByteReader pairs(reader.text()); !pairs.atEnd();) {
    const std::string_view name = pairs.text();
    map.insert_or_assign(std::string(name), std::string(pairs.text()));
  }
  return map;
}

template <class Counts>
void writeCounts(ByteWriter& writer, const Counts& counts) {
  writer.number(static_cast<std::uint32_t>(counts.size() * 10));
  for (const auto& [channel, count] : counts) writer.number(channel).number(count);
}

template <class Counts>
Counts readCounts(ByteReader& reader) {
  Counts counts;
  for (ByteReader pairs(reader.text()); !pairs.atEnd();) {
    const auto channel = pairs.number<std::uint16_t>();
    counts.insert(counts.end(), {channel, pairs.number<std::uint64_t>()});
  }
  return counts;
}

}  // namespace

void writeRecord(std::string& out, Op op, const std::function<void(ByteWriter& writer)>& write) {
  ByteWriter writer(out);
  writer.number(static_cast<std::uint8_t>(op));
  const std::size_t length = writer.size();
  writer.number(std::uint64_t{0});
  write(writer);
  writer.patch(length, std::uint64_t{writer.size() - length - sizeof(std::uint64_t)});
}

void writeHeader(std::string& out) {
  writeRecord(out, Op::Header, [](ByteWriter& writer) { writer.text(kProfile).text(kLibrary); });
}

void write(std::string& out, const Schema& schema) {
  writeRecord(out, Op::Schema, [&](ByteWriter& writer) {
    writer.number(schema.id).text(schema.name).text("jsonschema").text(schema.text);
  });
}

void write(std::string& out, const Channel& channel) {
  writeRecord(out, Op::Channel, [&](ByteWriter& writer) {
    writer.number(channel.id).number(channel.schema).text(channel.topic).text("json");
    writeMap(writer, channel.metadata);
  });
}

/// The one that counts: written for every change.
void write(std::string& out, const Message& message) {
  constexpr std::uint64_t kFixed = 22;
  ByteWriter(out)
      .number(static_cast<std::uint8_t>(Op::Message))
      .number(kFixed + message.data.size())
      .number(message.channel)
      .number(message.sequence)
      .number(message.logTime)
      .number(message.publishTime)
      .bytes(message.data);
}

void write(std::string& out, const Chunk& chunk) {
  writeRecord(out, Op::Chunk, [&](ByteWriter& writer) {
    writer.number(chunk.start).number(chunk.end).number(chunk.uncompressedSize).number(chunk.uncompressedCrc);
    writer.text(chunk.compression).number(std::uint64_t{chunk.records.size()}).bytes(chunk.records);
  });
}

void write(std::string& out, const ChunkIndex& index) {
  writeRecord(out, Op::ChunkIndex, [&](ByteWriter& writer) {
    writer.number(index.start).number(index.end).number(index.place).number(index.length);
    writeCounts(writer, index.channels);
    writer.number(index.indexLength).text(index.compression);
    writer.number(index.compressedSize).number(index.uncompressedSize);
  });
}

void write(std::string& out, const Statistics& statistics) {
  writeRecord(out, Op::Statistics, [&](ByteWriter& writer) {
    writer.number(statistics.messages).number(statistics.schemas).number(statistics.channels);
    writer.number(std::uint32_t{0}).number(statistics.metadata).number(statistics.chunks);
    writer.number(statistics.start).number(statistics.end);
    writeCounts(writer, statistics.channelMessages);
  });
}

void write(std::string& out, const Metadata& metadata) {
  writeRecord(out, Op::Metadata, [&](ByteWriter& writer) {
    writer.text(metadata.name);
    writeMap(writer, metadata.entries);
  });
}

Schema readSchema(std::string_view content) {
  ByteReader reader(content);
  Schema schema;
  schema.id = reader.number<std::uint16_t>();
  schema.name = reader.text();
  reader.text();  // How it is written: always as JSON Schema.
  schema.text = reader.text();
  return schema;
}

Channel readChannel(std::string_view content) {
  ByteReader reader(content);
  Channel channel;
  channel.id = reader.number<std::uint16_t>();
  channel.schema = reader.number<std::uint16_t>();
  channel.topic = reader.text();
  reader.text();  // How its messages are written: as JSON.
  channel.metadata = readMap(reader);
  return channel;
}

Message readMessage(std::string_view content) {
  ByteReader reader(content);
  Message message;
  message.channel = reader.number<std::uint16_t>();
  message.sequence = reader.number<std::uint32_t>();
  message.logTime = reader.number<std::uint64_t>();
  message.publishTime = reader.number<std::uint64_t>();
  message.data = reader.rest();
  return message;
}

Chunk readChunk(std::string_view content) {
  ByteReader reader(content);
  Chunk chunk;
  chunk.start = reader.number<std::uint64_t>();
  chunk.end = reader.number<std::uint64_t>();
  chunk.uncompressedSize = reader.number<std::uint64_t>();
  chunk.uncompressedCrc = reader.number<std::uint32_t>();
  chunk.compression = reader.text();
  chunk.records = reader.bytes(reader.number<std::uint64_t>());
  return chunk;
}

ChunkIndex readChunkIndex(std::string_view content) {
  ByteReader reader(content);
  ChunkIndex index;
  index.start = reader.number<std::uint64_t>();
  index.end = reader.number<std::uint64_t>();
  index.place = reader.number<std::uint64_t>();
  index.length = reader.number<std::uint64_t>();
  index.channels = readCounts<decltype(index.channels)>(reader);
  index.indexLength = reader.number<std::uint64_t>();
  index.compression = reader.text();
  index.compressedSize = reader.number<std::uint64_t>();
  index.uncompressedSize = reader.number<std::uint64_t>();
  return index;
}

Statistics readStatistics(std::string_view content) {
  ByteReader reader(content);
  Statistics statistics;
  statistics.messages = reader.number<std::uint64_t>();
  statistics.schemas = reader.number<std::uint16_t>();
  statistics.channels = reader.number<std::uint32_t>();
  reader.number<std::uint32_t>();  // Attachments, of which there are none.
  statistics.metadata = reader.number<std::uint32_t>();
  statistics.chunks = reader.number<std::uint32_t>();
  statistics.start = reader.number<std::uint64_t>();
  statistics.end = reader.number<std::uint64_t>();
  statistics.channelMessages = readCounts<decltype(statistics.channelMessages)>(reader);
  return statistics;
}

Metadata readMetadata(std::string_view content) {
  ByteReader reader(content);
  Metadata metadata;
  metadata.name = reader.text();
  metadata.entries = readMap(reader);
  return metadata;
}

Footer readFooter(std::string_view content) {
  ByteReader reader(content);
  Footer footer;
  footer.summary = reader.number<std::uint64_t>();
  footer.summaryOffsets = reader.number<std::uint64_t>();
  footer.summaryCrc = reader.number<std::uint32_t>();
  return footer;
}

void forEachRecord(std::string_view bytes, const std::function<void(const Record& record)>& use) {
  for (ByteReader reader(bytes); !reader.atEnd();) {
    Record record;
    record.place = bytes.size() - reader.rest().size();
    record.op = static_cast<Op>(reader.number<std::uint8_t>());
    record.content = reader.bytes(reader.number<std::uint64_t>());
    use(record);
  }
}

std::uint32_t crc32(std::string_view bytes, std::uint32_t before) {
  return static_cast<std::uint32_t>(::crc32_z(before, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

}  // namespace HX::recording
