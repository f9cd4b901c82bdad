#pragma once

#include <memory>
#include <string>

namespace HX {

class HXBroker;

/// A loaded module library. It stays mapped when this object goes.
class ModuleLibrary {
 public:
  /// Finds and loads a library. @see HXBroker::loadModule
  /// @throws std::runtime_error naming the library and why.
  static ModuleLibrary open(const std::string& library);

  const std::string& path() const { return path_; }
  void createModule(const std::shared_ptr<HXBroker>& broker) const { create_(broker); }
  void closeModule() const { close_(); }

 private:
  using Create = int (*)(const std::shared_ptr<HXBroker>&);
  using Close = int (*)();

  ModuleLibrary(std::string path, Create create, Close close)
      : path_(std::move(path)), create_(create), close_(close) {}

  std::string path_;
  Create create_;
  Close close_;
};

}  // namespace HX
