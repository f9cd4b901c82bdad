#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace kit {

/// A folder of the test's own, which goes with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    // Short: the path of a socket has 107 characters at most.
    std::string pattern = std::filesystem::temp_directory_path() / "korvo-XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no folder " + pattern);
    path_ = pattern;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace kit
