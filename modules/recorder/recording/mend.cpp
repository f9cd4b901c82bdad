#include "mend.h"

#include "filewriter.h"
#include "reader.h"

#include <algorithm>
#include <set>
#include <utility>

#include <fmt/format.h>

namespace HX::recording {
namespace {

class Mending {
 public:
  Mending(const std::filesystem::path& from, const std::filesystem::path& to)
      : reader_(from, Reader::Way::Lenient), writer_(to, reader_.about(), true) {}

  Mended run() {
    mended_.lostBytes = reader_.lost();
    for (const ChunkIndex& chunk : reader_.chunks()) take(chunk);
    for (const Metadata& metadata : reader_.metadata()) writer_.add(metadata);
    writer_.finish();
    mended_.messages = writer_.messages();
    if (reader_.strange() > 0) complain("{} bytes are of no known kind", reader_.strange());
    const std::uint64_t told = reader_.statistics() ? reader_.statistics()->messages : 0;
    if (told > mended_.messages) complain("{} messages of its summary are missing", told - mended_.messages);
    return std::move(mended_);
  }

 private:
  void complain(const char* what, std::uint64_t count) {
    mended_.complaints.push_back(fmt::format(fmt::runtime(what), count));
  }

  void take(const ChunkIndex& chunk) {
    try {
      const std::string records = reader_.load(chunk);
      std::string record = reader_.recordOf(chunk);
      // What is in no chunk was written in a hurry, and comes into one.
      const bool isChunk = static_cast<Op>(record[0]) == Op::Chunk;
      if (isChunk) {
        SealedChunk sealed = examine(std::move(record), records);
        const bool isDefined = std::ranges::all_of(sealed.index, [&](const IndexEntry& entry) {
          return defined_.contains(entry.channel) || sealed.definitions.channels.contains(entry.channel);
        });
        if (isDefined) return add(sealed);
      }
      rebuild(records);
    } catch (const RecordingError& error) {
      mended_.complaints.emplace_back(error.what());
    }
  }

  void add(const SealedChunk& sealed) {
    for (const auto& [id, record] : sealed.definitions.channels) defined_.insert(id);
    writer_.add(sealed);
  }

  /// Puts the messages into a chunk of their own, with the channels that a chunk before them may have lost.
  void rebuild(const std::string& records) {
    OpenChunk open;
    std::uint64_t lost = 0;
    forEachRecord(records, [&](const Record& record) {
      if (record.op != Op::Message) return;
      const Message message = readMessage(record.content);
      if (!define(open, message.channel)) return void(++lost);
      open.add(message);
    });
    if (lost > 0) complain("{} messages are of channels that nothing tells of", lost);
    if (!open.isEmpty()) add(seal(std::move(open), compressor_));
  }

  bool define(OpenChunk& open, std::uint16_t channel) {
    if (defined_.contains(channel)) return true;
    const auto found = reader_.channelRecords().find(channel);
    if (found == reader_.channelRecords().end()) return false;
    const std::uint16_t schema = readChannel(std::string_view(found->second).substr(kRecordHead)).schema;
    const auto schemaRecord = reader_.schemaRecords().find(schema);
    if (schemaRecord == reader_.schemaRecords().end()) return false;
    if (open.definitions.schemas.emplace(schema, schemaRecord->second).second) open.records += schemaRecord->second;
    open.definitions.channels.emplace(channel, found->second);
    open.records += found->second;
    defined_.insert(channel);
    return true;
  }

  Reader reader_;
  FileWriter writer_;
  Compressor compressor_{Compression::Zstd};
  std::set<std::uint16_t> defined_;
  Mended mended_;
};

/// @throws RecordingError when the file does not hold what was written to it.
void prove(const std::filesystem::path& file, std::uint64_t messages) {
  Reader reader(file);
  std::uint64_t found = 0;
  for (const ChunkIndex& chunk : reader.chunks()) {
    forEachRecord(reader.load(chunk), [&](const Record& record) { found += record.op == Op::Message ? 1 : 0; });
  }
  if (reader.isWhole() && found == messages && reader.hasRightSum()) return;
  throw RecordingError(fmt::format("{}: what was written is not what can be read", file.string()));
}

}  // namespace

Mended mend(const std::filesystem::path& from, const std::filesystem::path& to) {
  const bool wasThere = std::filesystem::exists(to);
  try {
    Mended mended = Mending(from, to).run();
    if (mended.messages == 0 && !mended.isAll()) {
      throw RecordingError(fmt::format("{}: nothing of it can be read", from.string()));
    }
    prove(to, mended.messages);
    return mended;
  } catch (...) {
    std::error_code ignored;
    if (!wasThere) std::filesystem::remove(to, ignored);
    throw;
  }
}

}  // namespace HX::recording
