#include "socketfolder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

namespace mw {

NoBrokerError::~NoBrokerError() = default;

namespace {

constexpr const char* kSocketSuffix = ".sock";
constexpr const char* kLockSuffix = ".lock";
constexpr int kLockTries = 10;
constexpr std::chrono::milliseconds kLockPause{5};

std::system_error systemError(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

std::string folderPath() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
    return fmt::format("{}/korvo", runtime);
  const char* temporary = std::getenv("TMPDIR");
  return fmt::format("{}/korvo-{}", temporary && *temporary ? temporary : "/tmp", ::geteuid());
}

std::string pathOf(const std::string& folder, std::string_view broker, const char* suffix) {
  return fmt::format("{}/{}{}", folder, broker, suffix);
}

/// Whoever could write into the folder could put a socket of their own into it.
void requirePrivate(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) throw systemError(path);
  if (!S_ISDIR(status.st_mode)) throw std::runtime_error(fmt::format("{} is not a folder", path));
  if (status.st_uid != ::geteuid()) throw std::runtime_error(fmt::format("{} belongs to another user", path));
  if ((status.st_mode & 077U) != 0) {
    throw std::runtime_error(fmt::format("others have rights in {}; it should have mode 0700", path));
  }
}

bool isRunning(const std::string& lockPath) {
  const local::File file(::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC));
  return file && ::flock(file.number(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

local::File newSocket() {
  local::File made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made) throw systemError("a socket");
  return made;
}

}  // namespace

std::string localSocketFolder() {
  const std::string path = folderPath();
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) throw systemError(path);
  requirePrivate(path);
  return path;
}

bool isBrokerName(std::string_view name) {
  const auto isPlain = [](char c) {
    return ('a' <= c && c <= 'z') || ('A' <= c && c <= 'Z') || ('0' <= c && c <= '9') || c == '-' || c == '_' ||
           c == '.';
  };
  return !name.empty() && name.front() != '.' && std::ranges::all_of(name, isPlain) &&
         pathOf(folderPath(), name, kSocketSuffix).size() < sizeof(sockaddr_un::sun_path);
}

std::vector<std::string> runningBrokers() {
  const std::string folder = localSocketFolder();
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != kLockSuffix || !isRunning(entry.path())) continue;
    names.push_back(entry.path().stem());
  }
  std::ranges::sort(names);
  return names;
}

namespace local {

BrokerFiles filesOf(const std::string& broker) {
  if (!isBrokerName(broker)) {
    throw std::runtime_error(
        fmt::format("\"{}\" cannot name a broker: letters, digits, '-', '_', '.' can, but no dot first, and no more "
                    "than the path of a socket in {} has room for",
                    broker, folderPath()));
  }
  const std::string folder = localSocketFolder();
  return {pathOf(folder, broker, kSocketSuffix), pathOf(folder, broker, kLockSuffix)};
}

File lockBroker(const BrokerFiles& files) {
  for (int tries = 0;;) {
    File file(::open(files.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file) throw systemError(files.lock);
    if (::flock(file.number(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK) throw systemError(files.lock);
      // Who lists the brokers that run holds it for a moment.
      if (++tries == kLockTries) return {};
      std::this_thread::sleep_for(kLockPause);
      continue;
    }
    // The broker before may have removed the file between the opening and the locking: this lock would guard nothing.
    struct stat opened {};
    struct stat named {};
    if (::fstat(file.number(), &opened) == 0 && ::stat(files.lock.c_str(), &named) == 0 &&
        opened.st_ino == named.st_ino) {
      return file;
    }
  }
}

File listenOn(const std::string& path) {
  File made = newSocket();
  ::unlink(path.c_str());
  const sockaddr_un address = addressOf(path);
  if (::bind(made.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0600) != 0 || ::listen(made.number(), SOMAXCONN) != 0) {
    throw systemError(path);
  }
  return made;
}

File connectTo(const std::string& path) {
  File made = newSocket();
  const sockaddr_un address = addressOf(path);
  while (::connect(made.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == EINTR) continue;
    if (errno == ENOENT || errno == ECONNREFUSED) return {};
    throw systemError(path);
  }
  return made;
}

bool isOwnPeer(const File& socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket.number(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  return credentials.uid == ::geteuid() || credentials.uid == 0;
}

}  // namespace local
}  // namespace mw
