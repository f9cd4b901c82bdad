#include <hxerror/mutex.h>
#include <libmw/os.h>
#include <libmw/path.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace mw::path {
namespace {

namespace fs = std::filesystem;

/// The folders given to prependDataDir(), in the order of search. Never destroyed, so that look-ups work at exit.
struct Prepended {
  HX::Mutex mutex;
  std::vector<std::string> directories HX_GUARDED_BY(mutex);
};

Prepended& prepended() {
  static auto* instance = new Prepended;
  return *instance;
}

[[noreturn]] void refuse(const char* argument, const std::string& value, const char* reason) {
  throw std::invalid_argument(std::string("path::findData: ") + argument + " \"" + value + "\" " + reason);
}

void checkRelative(const char* argument, const std::string& value) {
  if (value.empty()) refuse(argument, value, "is empty");
  // Named as far as the null character.
  // NOLINTNEXTLINE(readability-redundant-string-cstr)
  if (value.find('\0') != std::string::npos) refuse(argument, value.c_str(), "contains a null character");
  const fs::path parts(value);
  if (parts.is_absolute()) refuse(argument, value, "is an absolute path");
  if (std::find(parts.begin(), parts.end(), "..") != parts.end()) refuse(argument, value, "has a \"..\" part");
}

void checkApplication(const std::string& application) {
  checkRelative("application", application);
  if (application == "." || application.find('/') != std::string::npos) {
    refuse("application", application, "is not one folder name");
  }
}

void appendAbsolute(std::vector<std::string>& directories, const fs::path& base, const std::string& application) {
  if (base.is_absolute()) directories.push_back((base / application).string());
}

fs::path userDataHome() {
  if (fs::path home = os::getenv("XDG_DATA_HOME"); home.is_absolute()) return home;
  const fs::path home = os::getenv("HOME");
  return home.empty() ? fs::path() : home / ".local/share";
}

}  // namespace

std::vector<std::string> dataPaths(const std::string& application, bool excludeUserWritablePath) {
  checkApplication(application);
  std::vector<std::string> directories;
  {
    const HX::MutexLock lock(prepended().mutex);
    directories = prepended().directories;
  }
  if (!excludeUserWritablePath) appendAbsolute(directories, userDataHome(), application);
  auto system = os::getenv("XDG_DATA_DIRS");
  if (system.empty()) system = "/usr/local/share:/usr/share";
  std::istringstream entries(system);
  for (std::string entry; std::getline(entries, entry, ':');) appendAbsolute(directories, entry, application);
  return directories;
}

std::string findData(const std::string& application, const std::string& filename, bool excludeUserWritablePath) {
  checkRelative("filename", filename);
  for (const auto& directory : dataPaths(application, excludeUserWritablePath)) {
    const auto candidate = fs::path(directory) / filename;
    std::error_code unreadable;
    if (fs::is_regular_file(candidate, unreadable)) return candidate.string();
  }
  return {};
}

void prependDataDir(const std::string& directory) {
  if (directory.empty()) throw std::invalid_argument("path::prependDataDir: directory is empty");
  const auto absolute = fs::absolute(directory).lexically_normal().string();
  const HX::MutexLock lock(prepended().mutex);
  auto& directories = prepended().directories;
  std::erase(directories, absolute);
  directories.insert(directories.begin(), absolute);
}

}  // namespace mw::path
