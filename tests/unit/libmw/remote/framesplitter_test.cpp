#include <cstddef>
#include <local/receivebuffer.h>
#include <remote/framesplitter.h>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace mw::remote {
namespace {

using testing::HasSubstr;

constexpr std::size_t kFrameLimit = std::size_t{1} << 20;
constexpr std::size_t kDepthLimit = 4;
constexpr std::uint64_t kValueLimit = 2 << 20;

std::string bytes(std::initializer_list<int> codes, std::size_t content = 0) {
  std::string all;
  for (const int code : codes) all += static_cast<char>(code);
  return all + std::string(content, 'x');
}

/// Feeds pieces that end at `cuts` and at the end. @return The sizes of the frames that were found.
std::vector<std::size_t> split(std::string_view stream, const std::vector<std::size_t>& cuts) {
  FrameSplitter splitter(kFrameLimit, kDepthLimit, kValueLimit);
  std::vector<std::size_t> sizes;
  std::size_t begin = 0;
  const auto feed = [&](std::size_t end) {
    while (begin < end) {
      const std::size_t size = splitter.advance(std::as_bytes(std::span(stream.substr(begin, end - begin))));
      if (size == 0) return;
      sizes.push_back(size);
      begin += size;
    }
  };
  for (const std::size_t cut : cuts) feed(cut);
  feed(stream.size());
  return sizes;
}

struct SplitCase {
  const char* name;
  std::string bytes;
};

class EveryFormat : public testing::TestWithParam<SplitCase> {};

TEST_P(EveryFormat, EndsWhereItsValueEndsHoweverItArrives) {
  const std::string& frame = GetParam().bytes;
  const std::string listed = "\x95\x01" + frame + "\xcb" + std::string(8, 'x') + frame + "\x02";
  const std::string stream = frame + frame + listed + "\x01";
  const std::vector<std::size_t> expected{frame.size(), frame.size(), listed.size(), 1};
  EXPECT_EQ(split(stream, {}), expected);
  std::vector<std::size_t> everyByte;
  for (std::size_t i = 1; i < stream.size(); ++i) everyByte.push_back(i);
  EXPECT_EQ(split(stream, everyByte), expected);
  for (const std::size_t cut : everyByte) EXPECT_EQ(split(stream, {cut}), expected) << "cut at " << cut;
}

INSTANTIATE_TEST_SUITE_P(
    FrameSplitter, EveryFormat,
    testing::Values(
        SplitCase{"fixint", bytes({0x7f})}, SplitCase{"negative", bytes({0xe0})}, SplitCase{"nil", bytes({0xc0})},
        SplitCase{"false", bytes({0xc2})}, SplitCase{"true", bytes({0xc3})}, SplitCase{"float", bytes({0xca}, 4)},
        SplitCase{"double", bytes({0xcb}, 8)}, SplitCase{"uint8", bytes({0xcc}, 1)},
        SplitCase{"uint16", bytes({0xcd}, 2)}, SplitCase{"uint32", bytes({0xce}, 4)},
        SplitCase{"uint64", bytes({0xcf}, 8)}, SplitCase{"int8", bytes({0xd0}, 1)},
        SplitCase{"int16", bytes({0xd1}, 2)}, SplitCase{"int32", bytes({0xd2}, 4)},
        SplitCase{"int64", bytes({0xd3}, 8)}, SplitCase{"fixstr", bytes({0xbf}, 31)},
        SplitCase{"emptystr", bytes({0xa0})}, SplitCase{"str8", bytes({0xd9, 40}, 40)},
        SplitCase{"str16", bytes({0xda, 1, 0}, 256)}, SplitCase{"str32", bytes({0xdb, 0, 0, 1, 1}, 257)},
        SplitCase{"bin8", bytes({0xc4, 0})}, SplitCase{"bin16", bytes({0xc5, 0, 3}, 3)},
        SplitCase{"bin32", bytes({0xc6, 0, 0, 0, 2}, 2)}, SplitCase{"fixext1", bytes({0xd4}, 2)},
        SplitCase{"fixext2", bytes({0xd5}, 3)}, SplitCase{"fixext4", bytes({0xd6}, 5)},
        SplitCase{"fixext8", bytes({0xd7}, 9)}, SplitCase{"fixext16", bytes({0xd8}, 17)},
        SplitCase{"ext8", bytes({0xc7, 0, 1})}, SplitCase{"ext16", bytes({0xc8, 0, 2, 1}, 2)},
        SplitCase{"ext32", bytes({0xc9, 0, 0, 0, 1, 1}, 1)}, SplitCase{"emptylist", bytes({0x90})},
        SplitCase{"fixlist", bytes({0x92, 0xa1, 'a', 0xc0})}, SplitCase{"list16", bytes({0xdc, 0, 2, 1, 2})},
        SplitCase{"list32", bytes({0xdd, 0, 0, 0, 1, 0x90})}, SplitCase{"emptymap", bytes({0x80})},
        SplitCase{"fixmap", bytes({0x81, 0xa1, 'a', 0x91, 1})}, SplitCase{"map16", bytes({0xde, 0, 1, 1, 2})},
        SplitCase{"map32", bytes({0xdf, 0, 0, 0, 1, 1, 0x80})},
        SplitCase{"nested", bytes({0x92, 0x91, 0x81, 1, 0x90, 0xc0})}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(FrameSplitter, RefusesAtOnceWhatIsBeyondALimit) {
  struct Row {
    std::string bytes;
    const char* reason;
  };
  const Row rows[] = {
      {bytes({0xc1}), "begins no MessagePack value"},
      {bytes({0x92, 0, 0xc1}), "begins no MessagePack value"},
      {bytes({0xdb, 0xff, 0xff, 0xff, 0xff}), "more than 1048576 bytes"},
      {bytes({0xc6, 0, 0x10, 0, 0}), "more than 1048576 bytes"},
      {bytes({0xc9, 0xff, 0xff, 0xff, 0xff}), "more than 1048576 bytes"},
      {bytes({0xdd, 0xff, 0xff, 0xff, 0xff}), "more than 2097152 values"},
      {bytes({0xdf, 0xff, 0xff, 0xff, 0xff}), "more than 2097152 values"},
      {bytes({0xdd, 0, 0x10, 0, 0}), "more than 1048576 bytes"},
      {bytes({0x92, 0xc6, 0, 0x0f, 0xff, 0x00}, 0xfff00) + bytes({0xd9, 0xff}), "more than 1048576"},
      {bytes({0x93, 0xc6, 0, 0x0f, 0xff, 0xf4}, 0xffff4) + bytes({0xcb}, 8) + bytes({0xc0}), "more than 1048576"},
      {bytes({0x91, 0x91, 0x81, 1, 0x91, 0x91}), "more than 4 deep"}};
  for (const Row& row : rows) {
    FrameSplitter splitter(kFrameLimit, kDepthLimit, kValueLimit);
    try {
      splitter.advance(std::as_bytes(std::span(row.bytes)));
      ADD_FAILURE() << row.reason;
    } catch (const ProtocolError& error) {
      EXPECT_THAT(error.what(), HasSubstr(row.reason));
    }
  }
}

TEST(FrameSplitter, CountsTheNumbersOfAllLists) {
  const std::string frame = bytes({0x92, 0x93, 1, 2, 3, 0x92, 4, 5});
  FrameSplitter enough(kFrameLimit, kDepthLimit, frame.size());
  EXPECT_EQ(enough.advance(std::as_bytes(std::span(frame))), frame.size());
  EXPECT_EQ(enough.values(), frame.size());
  FrameSplitter fewer(kFrameLimit, kDepthLimit, frame.size() - 1);
  EXPECT_THROW(fewer.advance(std::as_bytes(std::span(frame))), ProtocolError);
}

TEST(FrameSplitter, TakesWhatIsJustWithinTheLimits) {
  for (const std::string& frame :
       {bytes({0xc6, 0, 0x0f, 0xff, 0xfb}, 0xffffb), bytes({0x91, 0x91, 0x81, 1, 0x91, 0x90})}) {
    EXPECT_EQ(split(frame, {}), std::vector{frame.size()});
  }
}

TEST(ReceiveBuffer, IsNotMadeAnewForEachPieceOfALongList) {
  local::ReceiveBuffer buffer;
  int moves = 0;
  for (const std::byte* begin = nullptr; buffer.bytes().size() < kFrameLimit;) {
    buffer.received(buffer.room(1).size());  // Of a list of numbers no more is known to be missing.
    if (std::exchange(begin, buffer.bytes().data()) != buffer.bytes().data()) ++moves;
  }
  EXPECT_LT(moves, 16);
}

}  // namespace
}  // namespace mw::remote
