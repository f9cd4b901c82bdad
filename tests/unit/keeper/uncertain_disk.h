#pragma once

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <vector>

namespace kit {

/// A disk under the database that keeps for certain only what was synced, and that can be full. While one lives, it is
/// what databases are opened on; what they read is all that was written, as long as the power lasts.
///
/// @par Threads  One at a time.
class UncertainDisk {
 public:
  UncertainDisk() : vfs_(*original_) {
    vfs_.zName = "uncertain";
    vfs_.pAppData = this;
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + original_->szOsFile;
    vfs_.xOpen = &open;
    vfs_.xDelete = &remove;
    sqlite3_vfs_register(&vfs_, 1);
  }
  UncertainDisk(const UncertainDisk&) = delete;
  UncertainDisk& operator=(const UncertainDisk&) = delete;
  ~UncertainDisk() {
    sqlite3_vfs_register(original_, 1);
    sqlite3_vfs_unregister(&vfs_);
  }

  bool isFull = false;
  /// Called before each write, truncation and sync: the power may fail now.
  std::function<void()> onStep;

  /// What may be found after the power has failed: of what was not synced each write is there, or not, or in part.
  void leave(const std::filesystem::path& folder, std::mt19937& random) const {
    for (const auto& [path, disk] : files_) {
      if (!disk.isThere) continue;
      std::string content = disk.synced;
      for (const Write& write : disk.unsynced) {
        const auto kept = random() % 3 == 0 ? random() % (write.data.size() + 1) : (random() % 2) * write.data.size();
        apply({write.offset, write.data.substr(0, kept), write.isCut && random() % 2 == 0}, content);
      }
      std::ofstream(folder / std::filesystem::path(path).filename(), std::ios::binary) << content;
    }
  }

 private:
  struct Write {
    std::size_t offset;
    std::string data;
    bool isCut = false;  ///< The file ends at the offset.
  };
  struct OnDisk {
    std::string synced;
    std::vector<Write> unsynced;
    bool isThere = false;
  };
  struct File {
    sqlite3_file base;
    UncertainDisk* disk;
    OnDisk* content;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  };

  static void apply(const Write& write, std::string& content) {
    if (write.isCut) content.resize(std::min(content.size(), write.offset));
    if (write.data.empty()) return;
    content.resize(std::max(content.size(), write.offset + write.data.size()));
    content.replace(write.offset, write.data.size(), write.data);
  }

  static File* of(sqlite3_file* file) { return reinterpret_cast<File*>(file); }
  void step() const {
    if (onStep) onStep();
  }

  static int open(sqlite3_vfs* vfs, const char* name, sqlite3_file* opened, int flags, int* outFlags) {
    auto* const disk = static_cast<UncertainDisk*>(vfs->pAppData);
    File* const file = of(opened);
    file->base.pMethods = nullptr;
    file->disk = disk;
    const int result = disk->original_->xOpen(disk->original_, name, file->real(), flags, outFlags);
    if (result != SQLITE_OK) return result;
    file->content = name ? &disk->files_[name] : &disk->nameless_;
    file->content->isThere = true;
    static const sqlite3_io_methods methods = makeMethods();
    file->base.pMethods = &methods;
    return SQLITE_OK;
  }

  static int remove(sqlite3_vfs* vfs, const char* name, int syncFolder) {
    auto* const disk = static_cast<UncertainDisk*>(vfs->pAppData);
    disk->files_[name] = {};
    return disk->original_->xDelete(disk->original_, name, syncFolder);
  }

  static sqlite3_io_methods makeMethods() {
    sqlite3_io_methods methods{};
    methods.iVersion = 1;
    methods.xClose = [](sqlite3_file* file) { return of(file)->real()->pMethods->xClose(of(file)->real()); };
    methods.xRead = [](sqlite3_file* file, void* data, int size, sqlite3_int64 offset) {
      return of(file)->real()->pMethods->xRead(of(file)->real(), data, size, offset);
    };
    methods.xWrite = [](sqlite3_file* file, const void* data, int size, sqlite3_int64 offset) -> int {
      if (of(file)->disk->isFull) return SQLITE_FULL;
      of(file)->disk->step();
      const std::string_view bytes(static_cast<const char*>(data), static_cast<std::size_t>(size));
      of(file)->content->unsynced.push_back({static_cast<std::size_t>(offset), std::string(bytes)});
      return of(file)->real()->pMethods->xWrite(of(file)->real(), data, size, offset);
    };
    methods.xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
      of(file)->disk->step();
      of(file)->content->unsynced.push_back({static_cast<std::size_t>(size), {}, true});
      return of(file)->real()->pMethods->xTruncate(of(file)->real(), size);
    };
    methods.xSync = [](sqlite3_file* file, int flags) {
      of(file)->disk->step();
      OnDisk& content = *of(file)->content;
      for (const Write& write : content.unsynced) apply(write, content.synced);
      content.unsynced.clear();
      return of(file)->real()->pMethods->xSync(of(file)->real(), flags);
    };
    methods.xFileSize = [](sqlite3_file* file, sqlite3_int64* size) {
      return of(file)->real()->pMethods->xFileSize(of(file)->real(), size);
    };
    methods.xLock = [](sqlite3_file* file, int level) {
      return of(file)->real()->pMethods->xLock(of(file)->real(), level);
    };
    methods.xUnlock = [](sqlite3_file* file, int level) {
      return of(file)->real()->pMethods->xUnlock(of(file)->real(), level);
    };
    methods.xCheckReservedLock = [](sqlite3_file* file, int* result) {
      return of(file)->real()->pMethods->xCheckReservedLock(of(file)->real(), result);
    };
    methods.xFileControl = [](sqlite3_file* file, int operation, void* argument) {
      return of(file)->real()->pMethods->xFileControl(of(file)->real(), operation, argument);
    };
    methods.xSectorSize = [](sqlite3_file* file) { return of(file)->real()->pMethods->xSectorSize(of(file)->real()); };
    methods.xDeviceCharacteristics = [](sqlite3_file* file) {
      // That a write does not harm its neighbours is a promise that not every disk keeps.
      return of(file)->real()->pMethods->xDeviceCharacteristics(of(file)->real()) & ~SQLITE_IOCAP_POWERSAFE_OVERWRITE;
    };
    return methods;
  }

  sqlite3_vfs* const original_ = sqlite3_vfs_find(nullptr);
  sqlite3_vfs vfs_;
  std::map<std::string, OnDisk> files_;
  OnDisk nameless_;
};

}  // namespace kit
