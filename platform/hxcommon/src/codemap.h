#pragma once

#include <cstdint>
#include <string>

namespace HX {

/// Which module code belongs to. Written when libraries are loaded, so that who crashes need only read.
namespace codemap {

/// Notes where a library lies.
/// @param address  Of something in it.
void addLibrary(const void* address, const std::string& path);
/// Notes a module of the library that `address` lies in; none of those noted when it is part of the program.
void addModule(const void* address, const std::string& name);

/// "module Arm (/usr/lib/…/libarm.so)"; null where no noted library is.
/// @par Threads  Any, and signal handlers.
const char* find(std::uintptr_t address) noexcept;

/// While it lives, the calling thread is opening a library: its constructors may run before it is noted.
class Opening {
 public:
  explicit Opening(const std::string& path) noexcept;
  Opening(const Opening&) = delete;
  Opening& operator=(const Opening&) = delete;
  ~Opening();
  /// What the calling thread is opening; null when nothing. For signal handlers too.
  static const char* present() noexcept;

 private:
  const char* const outer_;
};

}  // namespace codemap
}  // namespace HX
