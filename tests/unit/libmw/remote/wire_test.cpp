#include <optional>
#include <remote/wire.h>
#include <string>

#include <gmock/gmock.h>

namespace mw::remote {
namespace {

Bytes bytesOf(std::initializer_list<int> codes) {
  Bytes all;
  for (const int code : codes) all.push_back(static_cast<std::byte>(code));
  return all;
}

TEST(Reader, TakesNumbersInEveryFormatThatHoldsThem) {
  struct Row {
    Bytes bytes;
    std::optional<std::uint32_t> number;
  };
  const Row rows[] = {{bytesOf({0x7f}), 127},
                      {bytesOf({0xcc, 0xff}), 255},
                      {bytesOf({0xcd, 1, 0}), 256},
                      {bytesOf({0xce, 0xff, 0xff, 0xff, 0xff}), UINT32_MAX},
                      {bytesOf({0xcf, 0, 0, 0, 0, 0, 0, 0, 5}), 5},
                      {bytesOf({0xd0, 0x7f}), 127},
                      {bytesOf({0xd1, 0, 9}), 9},
                      {bytesOf({0xd2, 0x7f, 0xff, 0xff, 0xff}), INT32_MAX},
                      {bytesOf({0xd3, 0, 0, 0, 0, 0xff, 0, 0, 0}), 0xff000000},
                      {bytesOf({0xe0}), {}},
                      {bytesOf({0xd0, 0x80}), {}},
                      {bytesOf({0xd3, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), {}},
                      {bytesOf({0xcf, 0, 0, 0, 1, 0, 0, 0, 0}), {}},
                      {bytesOf({0xcd, 1}), {}},
                      {bytesOf({0xca, 0, 0, 0, 0}), {}},
                      {bytesOf({0xc0}), {}},
                      {bytesOf({}), {}}};
  for (const Row& row : rows) {
    Reader reader(row.bytes);
    if (row.number) {
      EXPECT_EQ(reader.number(), *row.number);
      EXPECT_TRUE(reader.atEnd());
    } else {
      EXPECT_THROW(reader.number(), ProtocolError);
    }
  }
}

TEST(Reader, LeavesAnExtensionOfAnotherTypeWhereItIs) {
  for (const std::size_t size : {1U, 2U, 3U, 16U, 300U, 70000U}) {
    const Bytes content(size);
    Bytes all;
    Writer writer(all);
    writer.extension(Extension::Object, content);
    Reader reader(all);
    EXPECT_EQ(reader.extension(Extension::Chain).data(), nullptr);
    EXPECT_EQ(reader.extension(Extension::Object).size(), size);
    EXPECT_TRUE(reader.atEnd());
  }
}

TEST(Reader, LeavesALongValueAtTheEndWhereItIs) {
  const HX::HXValue last(HX::HXValue::Binary(100'000));
  const HX::HXValue before(HX::HXValue::List{1.5, std::string("x")});
  Message message;
  Writer writer(message);
  writer.value(before);
  writer.value(before);
  writer.lastValue(last);
  Reader reader(message.bytes, message.last);
  EXPECT_EQ(reader.value(), before);
  EXPECT_GT(reader.skip().size(), 0U);
  const HX::HXValue read = reader.value();
  EXPECT_EQ(read.binaryIf()->data(), last.binaryIf()->data()) << "it was copied";
  EXPECT_TRUE(reader.atEnd());
}

TEST(Reader, RefusesWhatIsCutOff) {
  Bytes all;
  Writer writer(all);
  writer.list(20);
  writer.text("a text that is longer than thirty-one bytes");
  writer.extension(Extension::Object, Bytes(200));
  writer.value(HX::HXValue(HX::HXValue::List{1.5, std::string("x")}));
  for (std::size_t size = 0; size < all.size(); ++size) {
    Reader reader(std::span<const std::byte>(all).first(size));
    EXPECT_THROW(
        {
          reader.list();
          reader.text();
          if (reader.extension(Extension::Object).data() == nullptr) throw ProtocolError("not there");
          reader.value();
        },
        ProtocolError)
        << size;
  }
}

}  // namespace
}  // namespace mw::remote
