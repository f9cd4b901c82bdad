#pragma once

#include <hxcommon/hxproxy.h>
#include <hxcommon/settings.h>
#include <hxerror/api.h>
#include <hxerror/mutex.h>
#include <libmw/session.h>

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace HX {

class HXBrokerManager;
class HXModuleCore;
class ModuleLibrary;

/// Hosts modules and gives access to every module that can be reached, here or elsewhere.
///
/// A broker keeps its modules from their registration until they leave or it shuts down. Module libraries that it
/// loaded stay mapped for the life of the process: callables and types live in them.
///
/// @par Threads  Safe from any thread.
/// @par Locks    None is held while modules are called, made or destroyed.
class HX_API HXBroker : public std::enable_shared_from_this<HXBroker> {
 public:
  /// @param name     Names the broker among those of the machine.
  /// @param manager  Told of the new broker; the process-wide one when empty.
  static std::shared_ptr<HXBroker> create(std::string name, const std::shared_ptr<HXBrokerManager>& manager = nullptr);
  HXBroker(const HXBroker&) = delete;
  HXBroker& operator=(const HXBroker&) = delete;
  ~HXBroker();  ///< Shuts down.

  const std::string& getName() const { return name_; }
  std::weak_ptr<HXBrokerManager> getBrokerManager() const { return manager_; }
  const std::shared_ptr<mw::Session>& session() const { return session_; }

  /// A proxy to a module, wherever it runs. Asked again, the same proxy as long as the module is the same.
  /// @param name   Of the module.
  /// @param flags  0; kept for callers that state it.
  /// @return Empty when there is no such module.
  std::shared_ptr<HXProxy> getProxy(const std::string& name, int flags = 0);

  /// Whether `getProxy` would give a proxy to the same module again: false once its module has left, also when another
  /// one has come under its name. For those who keep a proxy weakly. Asks nobody beyond this process.
  bool isCurrent(const HXProxy& proxy) const;

  /// A proxy of a generated type, constructed from the generic one.
  /// @throws std::runtime_error naming the module when there is none.
  template <class P>
  std::shared_ptr<P> getSpecialisedProxy(const std::string& name) {
    auto proxy = getProxy(name);
    if (!proxy) throw std::runtime_error("no module named " + name);
    return std::make_shared<P>(std::move(proxy));
  }

  /// A module of this process as an interface that it derives from, for C++ that needs more of it than its methods.
  ///
  ///     auto owner = broker->interfaceOf<journal::JournalOwner>("HXMemory");
  ///
  /// @param name  Of the module.
  /// @return Empty when there is no such module in this process, or it is no T. Let go of it soon: it keeps the module
  ///         while that leaves, without being a call that its broker waits for.
  template <class T>
  std::shared_ptr<T> interfaceOf(const std::string& name) const {
    return std::dynamic_pointer_cast<T>(ownModule(name));
  }

  /// Loads a module library and lets it make its modules.
  ///
  /// @param library  A path (with a slash in it), or a name: `lib<name>.so` is looked for in the folders of
  ///                 KORVO_MODULE_PATH and then in the installed module folder.
  /// @throws std::runtime_error naming the library and why: not found, not loadable, without the entry points, or the
  ///         error of its entry point. What it registered before it failed is removed again.
  /// @throws SettingsError for settings that the library's modules do not have or refuse; nothing of it is registered
  /// then.
  void loadModule(const std::string& library);

  /// Finds out what a library has, without running it: its modules are constructed, described, and dropped before their
  /// `init`. Their constructors find the services of this broker, and the settings that are provided.
  ///
  /// @param library  As for `loadModule`.
  /// @return Its modules, in the order in which it makes them.
  /// @throws As `loadModule`.
  std::vector<ModuleDescription> examineModule(const std::string& library);

  /// Keeps settings for modules that are made later, which check them in their constructors.
  ///
  /// @param name      Whose they are: of a library, as `libraryName` says it, for all that it makes; of a module, when
  /// a
  ///                  program makes it by itself.
  /// @param settings  Replace those that were provided for the same name. In a library of several modules, a table that
  /// has
  ///                  the name of a module is for that one.
  void provideSettings(const std::string& name, GivenSettings settings);

  /// The module of that name in this process, its settings and what they are.
  /// @param name  Of the module.
  /// @return The description.
  /// @throws std::runtime_error when there is none.
  ModuleDescription describeModule(const std::string& name) const;

  /// The name of a library: "arm" for "arm", "./build/libarm.so" and "/opt/robot/libarm.so".
  /// @param library  As for `loadModule`.
  /// @return Without folder, "lib" and ".so".
  static std::string libraryName(const std::string& library);

  /// Takes a module in. Called by `HXModuleCore::initModule`.
  /// @throws std::runtime_error when the name is taken or the broker is shut down.
  void registerModule(std::shared_ptr<HXModuleCore> module);
  /// Lets a module go: withdraws its service, wakes up its sleepers, waits for the calls that run in it.
  /// @return False when there is no such module.
  bool unregisterModule(const std::string& name);
  /// The same for this very module: a namesake stays.
  bool unregisterModule(const HXModuleCore& module);
  /// The modules of this process, in the order of their registration.
  std::vector<std::string> modules() const;

  /// Tells every module to exit, the last one first, and lets it go; what an exit throws is logged. Final. Called
  /// again it does nothing, also from inside a module's exit, and while another thread shuts down it does not wait.
  void shutdown();

 private:
  struct Hosted {
    std::shared_ptr<HXModuleCore> module;
    mw::ServiceId service = 0;
  };

  friend class HXModuleCore;  // Asks for its settings.

  explicit HXBroker(std::string name);
  std::vector<ModuleDescription> makeModules(const std::string& library, bool examineOnly);
  std::shared_ptr<const GivenSettings> givenSettings(const std::string& name) const;
  using IsWanted = std::function<bool(const HXModuleCore&)>;
  bool unregisterFirst(const IsWanted& isWanted);
  void forgetStaleProxy(const std::string& name);
  void requireRunning(const std::string& moduleName) const HX_REQUIRES(mutex_);
  std::shared_ptr<mw::GenericObject> ownModule(const std::string& name) const;
  std::shared_ptr<HXModuleCore> lastModule() const;
  void exitModule(std::shared_ptr<HXModuleCore> module);
  void closeLibraries();

  const std::string name_;
  std::weak_ptr<HXBrokerManager> manager_;
  const std::shared_ptr<mw::Session> session_;

  mutable Mutex mutex_;
  std::vector<Hosted> modules_ HX_GUARDED_BY(mutex_);
  std::map<std::string, std::shared_ptr<HXProxy>> proxies_ HX_GUARDED_BY(mutex_);
  std::vector<ModuleLibrary> libraries_ HX_GUARDED_BY(mutex_);
  std::map<std::string, std::shared_ptr<const GivenSettings>> givenSettings_ HX_GUARDED_BY(mutex_);
  bool shutDown_ HX_GUARDED_BY(mutex_) = false;
};

}  // namespace HX
