#pragma once

#include "entry.h"
#include "records.h"
#include "shape.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HX::recording {

/// A channel, and what its messages are.
struct ChannelInfo {
  enum class Role : std::uint8_t { Key, Log, Changes, More, Foreign };
  Role role = Role::Key;
  std::string topic;
  What what = What::Stored;
  std::string author;
  Shape shape;
  bool hasShape = false;  ///< Without, another program has written it.
};

/// Reads a file of recordings, whole or cut off, or changed by whomever: what it says is not believed before it is
/// checked, and what is wrong is a RecordingError that names the file and the place.
///
/// @par Threads  One at a time.
class Reader {
 public:
  /// The greatest chunk that is taken.
  static constexpr std::uint64_t kLimit = std::uint64_t{1} << 30U;

  enum class Way : std::uint8_t {
    Quick,    ///< By the summary, when there is one.
    Lenient,  ///< From the start, as far as there are records.
  };
  explicit Reader(std::filesystem::path path, Way way = Way::Quick, std::uint64_t limit = kLimit);
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader();

  const std::filesystem::path& path() const { return path_; }
  std::uint64_t size() const { return size_; }
  /// Ends as it should, with a summary that holds.
  bool isWhole() const { return isWhole_; }
  /// Bytes at the end that are no whole record.
  std::uint64_t lost() const { return lost_; }
  /// Bytes of records that belong to no such file; known after a lenient reading.
  std::uint64_t strange() const { return strange_; }
  /// The metadata `korvo`, empty when another program has written the file.
  const TextMap& about() const { return about_; }
  /// Further metadata, in the order of the file.
  const std::vector<Metadata>& metadata() const { return metadata_; }
  /// In the order of the file. Messages outside of chunks are told like chunks that are not compressed.
  const std::vector<ChunkIndex>& chunks() const { return chunks_; }
  /// Whether chunks say which channels they have.
  bool hasIndex() const { return hasIndex_; }
  /// Those that are known so far: all of them when there is a summary, else those of chunks that were loaded.
  const std::map<std::uint16_t, ChannelInfo>& channels() const { return channels_; }
  /// Their records, by their numbers.
  const std::map<std::uint16_t, std::string>& channelRecords() const { return channelRecords_; }
  const std::map<std::uint16_t, std::string>& schemaRecords() const { return schemaRecords_; }
  /// What the summary counts.
  const std::optional<Statistics>& statistics() const { return statistics_; }

  /// The chunk with its head, as it stands in the file.
  std::string recordOf(const ChunkIndex& chunk) const;
  /// The content, checked, decompressed.
  std::string load(const ChunkIndex& chunk);
  /// Whether all bytes that should be summed up have the sum that the file says. Reads all of it.
  bool hasRightSum() const;

  /// Tells all entries, in the order of the file, which is that of revisions.
  /// @param use   False ends it.
  /// @param from  The first chunk.
  /// @param end   The one behind the last.
  void forEach(const std::function<bool(const Entry& entry)>& use, std::size_t from = 0,
               std::size_t end = ~std::size_t{0});

  /// What a message says. Remembers from one to the next what stands before it.
  class Decoder {
   public:
    explicit Decoder(const Reader& reader);
    /// @return None for what only helps to read others.
    /// @throws RecordingError
    std::optional<Entry> decode(const Message& message);

   private:
    Entry entryOf(const Message& message, const ChannelInfo& channel);
    bool readChange(const Message& message, Entry& entry);
    void readMore(const Message& message, Entry& entry);
    std::uint64_t revisionOf(std::uint32_t sequence);

    const Reader& reader_;
    std::uint64_t revision_;
    struct Exact {
      std::uint32_t sequence = 0;
      HXValue value;
    };
    std::optional<Exact> exact_;  // Of the message that follows.
  };

 private:
  std::string readBytes(std::uint64_t place, std::uint64_t size) const;
  bool readSummary();
  void readSummaryRecord(const Record& record);
  void scan();
  void scanRecord(Op op, std::uint64_t place, std::uint64_t length);
  void addChannel(std::string_view content);
  void addDefinition(const Record& record, std::string_view whole);
  void addMetadata(Metadata metadata);
  [[noreturn]] void fail(std::uint64_t place, const std::string& reason) const;

  const std::filesystem::path path_;
  const std::uint64_t limit_;
  const int file_;
  std::uint64_t size_ = 0;
  std::uint64_t lost_ = 0;
  std::uint64_t strange_ = 0;
  bool isWhole_ = false;
  bool hasIndex_ = false;
  TextMap about_;
  std::vector<Metadata> metadata_;
  std::vector<ChunkIndex> chunks_;
  std::map<std::uint16_t, ChannelInfo> channels_;
  std::map<std::uint16_t, std::string> channelRecords_;
  std::map<std::uint16_t, std::string> schemaRecords_;
  std::optional<Statistics> statistics_;
};

/// How a number in the metadata `korvo` is read; 0 for none.
std::uint64_t numberOf(const TextMap& about, std::string_view name);

}  // namespace HX::recording
