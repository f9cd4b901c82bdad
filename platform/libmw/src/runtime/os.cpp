#include <libmw/os.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <thread>

namespace mw::os {

std::FILE* fopen(const char* path, const char* mode) noexcept {
  try {
    return std::fopen(path, (std::string(mode) + "e").c_str());
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

void sleep(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }

std::string getenv(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : std::string();
}

}  // namespace mw::os
