#include <hxview/segment.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

// Newer than the headers of the distribution.
#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

namespace HX::view {
namespace {

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::runtime_error(fmt::format("{}: {}", what, std::generic_category().message(error)));
}

std::size_t wholePages(std::size_t size) {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  if (size > SIZE_MAX - page) throw std::runtime_error(fmt::format("no memory has {} bytes", size));
  return (size + page - 1) / page * page;
}

/// To grow a file beyond this limit would end the process by a signal.
void requireAllowed(std::size_t size) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || size <= limit.rlim_cur) return;
  throw std::runtime_error(fmt::format(
      "shared memory of {} bytes: the limit of the process for files is {} (ulimit -f)", size, limit.rlim_cur));
}

int newFile(std::size_t size) {
  requireAllowed(size);
  constexpr unsigned kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
  int file = ::memfd_create("korvo-views", kFlags | MFD_NOEXEC_SEAL);
  if (file < 0 && errno == EINVAL) file = ::memfd_create("korvo-views", kFlags);  // A kernel that does not know it yet.
  if (file < 0) fail("shared memory");
  return file;
}

}  // namespace

Segment::Segment(std::size_t size) : size_(wholePages(size)), file_(newFile(size_)) {
  try {
    const auto length = static_cast<off_t>(size_);
    // Memory that is missing is missed here, and not by a signal when it is written.
    int error = 0;
    do {
      error = ::posix_fallocate(file_, 0, length);
    } while (error == EINTR);
    if (error != 0) fail(fmt::format("shared memory of {} bytes", size_), error);
    void* const mapped = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (mapped == MAP_FAILED) fail(fmt::format("shared memory of {} bytes", size_));
    data_ = static_cast<std::byte*>(mapped);
    ::madvise(data_, size_, MADV_DONTFORK);  // A child would write what is not its own.
    // The last of all: from here on nobody gets a mapping that can be written, this process neither.
    if (::fcntl(file_, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) != 0) {
      fail("sealing shared memory (a kernel before 5.1 cannot)");
    }
    new (data_) SegmentHead;
  } catch (...) {
    if (data_) ::munmap(data_, size_);
    ::close(file_);
    throw;
  }
}

Segment::~Segment() {
  ::munmap(data_, size_);
  ::close(file_);
}

Mapping::Mapping(int file, std::size_t size, Content content) : size_(size) {
  const int seals = ::fcntl(file, F_GET_SEALS);
  constexpr int kNeeded = F_SEAL_SHRINK | F_SEAL_GROW;
  if (seals < 0 || (seals & kNeeded) != kNeeded) throw std::runtime_error("shared memory that could be cut off");
  struct stat status {};
  if (::fstat(file, &status) != 0) fail("shared memory");
  if (static_cast<std::uint64_t>(status.st_size) != size || size < sizeof(SegmentHead)) {
    throw std::runtime_error(fmt::format("shared memory of {} bytes, and not {}", status.st_size, size));
  }
  void* const mapped = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED | MAP_POPULATE, file, 0);
  if (mapped == MAP_FAILED) fail(fmt::format("mapping shared memory of {} bytes", size_));
  data_ = static_cast<const std::byte*>(mapped);
  if (content == Content::Anything) return;
  const std::uint64_t magic = head().magic.load(std::memory_order_relaxed);
  const std::uint64_t layout = head().layout.load(std::memory_order_relaxed);
  if (magic == kMagic && layout == kLayout) return;
  ::munmap(mapped, size_);
  throw std::runtime_error(magic == kMagic ? fmt::format("shared memory of layout {}, and not {}", layout, kLayout)
                                           : "shared memory of something else than views");
}

Mapping::~Mapping() { ::munmap(const_cast<std::byte*>(data_), size_); }

}  // namespace HX::view
