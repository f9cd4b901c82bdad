#include "socketfolder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <pwd.h>
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
constexpr const char* kFilesSuffix = ".file";  // As long as the others: a name that fits, fits for all.
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

std::string userName(uid_t user) {
  const passwd* const entry = ::getpwuid(user);
  return entry ? entry->pw_name : fmt::format("{}", user);
}

std::string pathOf(const std::string& folder, std::string_view broker, const char* suffix) {
  return fmt::format("{}/{}{}", folder, broker, suffix);
}

/// Whoever could write into the folder could put a socket of their own into it.
void requirePrivate(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) throw systemError(path);
  if (!S_ISDIR(status.st_mode)) throw std::runtime_error(fmt::format("{} is not a folder", path));
  if (status.st_uid != ::geteuid()) {
    throw std::runtime_error(
        fmt::format("{0} belongs to user {1}, and only {1} may ask who listens there: run this as {1}", path,
                    userName(status.st_uid)));
  }
  if ((status.st_mode & 077U) != 0) {
    throw std::runtime_error(fmt::format("others have rights in {}; it should have mode 0700", path));
  }
}

bool isRunning(const std::string& lockPath) {
  const File file(::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC));
  return file && ::flock(file.number(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

/// The names of this user's brokers that are running, each with the path of its lock file, sorted.
std::map<std::string, std::filesystem::path> runningLocks() {
  std::map<std::string, std::filesystem::path> locks;
  for (const auto& entry : std::filesystem::directory_iterator(localSocketFolder())) {
    if (entry.path().extension() == kLockSuffix && isRunning(entry.path())) {
      locks.emplace(entry.path().stem(), entry.path());
    }
  }
  return locks;
}

/// "process 1234" and "version 0.1.0", a line each. The file's time says since when.
void signIn(const File& lock) {
  const std::string text = fmt::format("process {}\nversion {}\n", ::getpid(), KORVO_VERSION);
  // A full disk must not keep a broker from running: it is only not told of.
  [[maybe_unused]] const bool written =
      ::ftruncate(lock.number(), 0) == 0 && ::pwrite(lock.number(), text.data(), text.size(), 0) >= 0;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

std::optional<ucred> credentialsOf(const File& socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(socket.number(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  return credentials;
}

/// The path of the program that a process executes, also when a newer one has taken its place.
std::string programOf(const std::string& process) {
  constexpr std::string_view kReplaced = " (deleted)";
  std::error_code unknown;
  std::string path = std::filesystem::read_symlink("/proc/" + process + "/exe", unknown);
  if (path.ends_with(kReplaced)) path.resize(path.size() - kReplaced.size());
  return path;
}

File newSocket(int type) {
  File made(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
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

bool isBrokerName(std::string_view name) { return whyNoBrokerName(name).empty(); }

std::string whyNoBrokerName(std::string_view name) {
  constexpr std::size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  const auto isPlain = [](char c) {
    return ('a' <= c && c <= 'z') || ('A' <= c && c <= 'Z') || ('0' <= c && c <= '9') || c == '-' || c == '_' ||
           c == '.';
  };
  if (name.empty() || name.front() == '.' || !std::ranges::all_of(name, isPlain)) {
    return fmt::format("\"{}\" cannot name a broker: letters, digits, '-', '_', '.' can, but no dot first",
                       name.substr(0, kLongest));
  }
  const std::string path = pathOf(folderPath(), name, kSocketSuffix);
  if (path.size() <= kLongest) return {};
  // With the shortest name there is, is it the folder's fault?
  const bool isFolder = path.size() - name.size() + 1 > kLongest;
  return fmt::format("the socket of broker {} would be {}, {} bytes, and the path of a socket has at most {}: {}", name,
                     path, path.size(), kLongest,
                     isFolder ? "set XDG_RUNTIME_DIR to a shorter one" : "choose a shorter name");
}

std::vector<std::string> runningBrokers() {
  std::vector<std::string> names;
  for (const auto& [name, path] : runningLocks()) names.push_back(name);
  return names;
}

std::vector<RunningBroker> describeRunningBrokers() {
  std::vector<RunningBroker> brokers;
  for (const auto& [name, path] : runningLocks()) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) continue;  // It has ended meanwhile.
    const auto since = std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec);
    RunningBroker broker{name, 0, std::chrono::system_clock::time_point(since), {}};
    std::ifstream text(path);
    for (std::string what; text >> what;) {
      if (what == "process") text >> broker.process;
      if (what == "version") text >> broker.version;
    }
    brokers.push_back(std::move(broker));
  }
  return brokers;
}

namespace local {

BrokerFiles filesOf(const std::string& broker) {
  if (const std::string why = whyNoBrokerName(broker); !why.empty()) throw std::runtime_error(why);
  const std::string folder = localSocketFolder();
  return {pathOf(folder, broker, kSocketSuffix), pathOf(folder, broker, kLockSuffix),
          pathOf(folder, broker, kFilesSuffix)};
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
      signIn(file);
      return file;
    }
  }
}

bool isLocked(const BrokerFiles& files) { return isRunning(files.lock); }

std::optional<FileId> idOf(const std::string& path) {
  struct stat named {};
  if (::lstat(path.c_str(), &named) != 0) return std::nullopt;
  return FileId{named.st_dev, named.st_ino};
}

File listenOn(const std::string& path, int type) {
  File made = newSocket(type);
  ::unlink(path.c_str());
  const sockaddr_un address = addressOf(path);
  if (::bind(made.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0600) != 0 || ::listen(made.number(), SOMAXCONN) != 0) {
    throw systemError(path);
  }
  return made;
}

File connectTo(const std::string& path, int type) {
  File made = newSocket(type);
  const sockaddr_un address = addressOf(path);
  while (::connect(made.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == EINTR) continue;
    if (errno == ENOENT || errno == ECONNREFUSED) return {};
    throw systemError(path);
  }
  return made;
}

bool isOwnPeer(const File& socket) {
  const auto credentials = credentialsOf(socket);
  return credentials && credentials->uid == ::geteuid();
}

pid_t processOf(const File& socket) {
  const auto credentials = credentialsOf(socket);
  return credentials ? credentials->pid : 0;
}

bool isOfThisProgram(pid_t process) {
  const std::string own = programOf("self");
  return !own.empty() && programOf(fmt::format("{}", process)) == own;
}

}  // namespace local
}  // namespace mw
