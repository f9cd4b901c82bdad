#include "harness.h"

#include <filesystem>
#include <recording/mend.h>
#include <recording/table.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {
namespace {

/// A file that is nowhere.
class MemoryFile {
 public:
  explicit MemoryFile(Input input) : file_(::memfd_create("recording", MFD_CLOEXEC)) {
    require(file_ >= 0 && ::write(file_, input.data(), input.size()) == static_cast<ssize_t>(input.size()),
            "there is memory for the input");
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { ::close(file_); }

  std::filesystem::path path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  const int file_;
};

constexpr std::uint64_t kLimit = std::uint64_t{16} << 20U;

}  // namespace

/// As everything that opens a file reads it; what is wrong with it is an error, and nothing else.
void recording(Input input) {
  using namespace HX::recording;
  const MemoryFile file(input);
  for (const Reader::Way way : {Reader::Way::Quick, Reader::Way::Lenient}) {
    try {
      Reader reader(file.path(), way, kLimit);
      reader.forEach([](const Entry& entry) {
        require(static_cast<std::uint8_t>(entry.what) < HX::journal::kWhats, "an entry is of a kind that there is");
        return true;
      });
      tableAt(reader, timePoint(~std::uint64_t{0} >> 1U), {});
      reader.hasRightSum();
    } catch (const RecordingError&) {
    }
  }
}

}  // namespace fuzz
