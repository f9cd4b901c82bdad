#include "modulelibrary.h"

#include "codemap.h"

#include <libmw/os.h>
#include <libmw/step.h>

#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace HX {
namespace {

namespace fs = std::filesystem;

/// The folder `korvo/modules` beside the library that this code is part of.
fs::path installedModuleFolder() {
  Dl_info self{};
  if (!dladdr(reinterpret_cast<const void*>(&installedModuleFolder), &self)) return {};
  return fs::path(self.dli_fname).parent_path() / "korvo" / "modules";
}

std::vector<fs::path> moduleFolders() {
  std::vector<fs::path> folders;
  const std::string listed = mw::os::getenv("KORVO_MODULE_PATH");
  for (std::size_t begin = 0; begin < listed.size();) {
    const std::size_t end = std::min(listed.find(':', begin), listed.size());
    if (end > begin) folders.emplace_back(listed.substr(begin, end - begin));
    begin = end + 1;
  }
  folders.push_back(installedModuleFolder());
  return folders;
}

std::string find(const std::string& library) {
  if (library.find('/') != std::string::npos) {
    std::error_code unreadable;
    if (fs::exists(library, unreadable)) return library;
    throw std::runtime_error(fmt::format("module library {}: no such file", library));
  }
  std::string searched;
  for (const fs::path& folder : moduleFolders()) {
    for (const std::string& name : {"lib" + library + ".so", library}) {
      std::error_code unreadable;
      if (fs::is_regular_file(folder / name, unreadable)) return folder / name;
    }
    searched += (searched.empty() ? "" : ", ") + folder.string();
  }
  throw std::runtime_error(fmt::format("module library {}: not found in {}", library, searched));
}

}  // namespace

ModuleLibrary ModuleLibrary::open(const std::string& library) {
  std::string path = find(library);
  const mw::Step step("loading of module library " + path);
  void* handle = [&] {
    const codemap::Opening opening(path);
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  }();
  if (!handle) {
    const char* reason = dlerror();
    throw std::runtime_error(fmt::format("module library {}: {}", path, reason ? reason : "cannot be loaded"));
  }
  const auto entryPoint = [&](const char* name) {
    void* entry = dlsym(handle, name);
    if (!entry) throw std::runtime_error(fmt::format("module library {}: it has no entry point {}", path, name));
    return entry;
  };
  const auto create = reinterpret_cast<Create>(entryPoint("_createModule"));
  const auto close = reinterpret_cast<Close>(entryPoint("_closeModule"));
  codemap::addLibrary(reinterpret_cast<const void*>(create), path);
  return {std::move(path), create, close};
}

}  // namespace HX
