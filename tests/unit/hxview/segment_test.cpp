#include <hxview/segment.h>

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::view {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr std::size_t kSize = 8192;

TEST(Segment, CanBeReadByOthersAndWrittenByNobodyElse) {
  const Segment segment(kSize);
  const Mapping mapping(segment.file(), segment.size());
  segment.head().beat = 5;
  EXPECT_EQ(mapping.head().beat, 5U);

  const std::string path = "/proc/self/fd/" + std::to_string(segment.file());
  const int reopened = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(reopened, 0);
  for (const int file : {segment.file(), reopened}) {
    EXPECT_EQ(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0), MAP_FAILED);
    EXPECT_EQ(::pwrite(file, "x", 1, 0), -1);
    EXPECT_EQ(::ftruncate(file, 0), -1);
    EXPECT_EQ(::ftruncate(file, 2 * kSize), -1);
    EXPECT_EQ(::fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096), -1);
    EXPECT_EQ(::fcntl(file, F_ADD_SEALS, F_SEAL_WRITE), -1);
  }
  ::close(reopened);
  EXPECT_EQ(::mprotect(const_cast<std::byte*>(mapping.data()), kSize, PROT_READ | PROT_WRITE), -1);
  EXPECT_EQ(mapping.head().beat, 5U);
}

TEST(Segment, IsRefusedWhereTheProcessMayNotHaveIt) {
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  rlimit less = before;
  less.rlim_cur = 4096;
  ::setrlimit(RLIMIT_FSIZE, &less);
  EXPECT_THAT([] { Segment segment(kSize); }, ThrowsMessage<std::runtime_error>(HasSubstr("ulimit -f")));
  ::setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_THAT([] { Segment segment(SIZE_MAX); }, ThrowsMessage<std::runtime_error>(HasSubstr("bytes")));
}

/// What somebody could hand over in place of a segment.
struct File {
  const char* what;
  std::size_t size;
  unsigned seals;
  SegmentHead* head;
  const char* refusal;
};

TEST(Mapping, RefusesWhatCouldEndTheReaderOrIsNoSegment) {
  SegmentHead good;
  SegmentHead other;
  other.magic = 1;
  SegmentHead later;
  later.layout = kLayout + 1;
  constexpr unsigned kSealed = F_SEAL_SHRINK | F_SEAL_GROW;
  const File files[] = {{"not sealed", kSize, 0, &good, "cut off"},
                        {"able to shrink", kSize, F_SEAL_GROW, &good, "cut off"},
                        {"shorter than said", kSize / 2, kSealed, &good, "4096 bytes, and not 8192"},
                        {"empty", 0, kSealed, nullptr, "0 bytes, and not 8192"},
                        {"no segment", kSize, kSealed, &other, "something else"},
                        {"a later layout", kSize, kSealed, &later, "layout 2, and not 1"}};
  for (const File& one : files) {
    SCOPED_TRACE(one.what);
    const int file = ::memfd_create("stranger", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(::ftruncate(file, static_cast<off_t>(one.size)), 0);
    if (one.head) {
      ASSERT_EQ(::pwrite(file, one.head, sizeof *one.head, 0), static_cast<ssize_t>(sizeof *one.head));
    }
    ASSERT_EQ(::fcntl(file, F_ADD_SEALS, one.seals), 0);
    EXPECT_THAT([&] { Mapping mapping(file, kSize); }, ThrowsMessage<std::runtime_error>(HasSubstr(one.refusal)));
    ::close(file);
  }
  EXPECT_THROW(Mapping(-1, kSize), std::runtime_error);
}

}  // namespace
}  // namespace HX::view
