#pragma once

#include <hxauthor/author.h>
#include <hxcommon/hxfunctor.h>
#include <hxcommon/settings.h>
#include <hxerror/hxerror.h>
#include <hxerror/mutex.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>
#include <libmw/dynamicobject.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>

namespace HX {

class HXBroker;
class HXMemoryProxy;
class HXProxy;
class ModuleSettings;

/// What a module is to its broker: a name, a parent, and a table of documented methods.
///
/// What its constructor and its methods write into the memory, it has written itself, whoever called: the journal names
/// it as the author.
///
/// Methods and signals are bound in the constructor, by the thread that runs it, and stay as they are from
/// `initModule` on. Methods are called by any number of threads at once.
class HX_API HXModuleCore : public mw::DynamicObject {
 public:
  /// @param broker  The broker that the module will belong to; not kept.
  /// @param name    The name under which others call it.
  HXModuleCore(const std::shared_ptr<HXBroker>& broker, std::string name);
  ~HXModuleCore() override;

  const std::string& getName() const { return name_; }
  /// @throws std::runtime_error when the broker has gone.
  std::shared_ptr<HXBroker> getParentBroker() const;
  /// As `getParentBroker`; empty when the broker has gone.
  std::shared_ptr<HXBroker> findParentBroker() const { return broker_.lock(); }

  /// What the module was set to by the file or the program that runs it: a Map of all that it declared by `addSetting`,
  /// with the defaults of what was not given. Stays as it is from `initModule` on.
  ///
  ///     const auto period = HX::toDuration(settings()["period"]);
  ///
  /// @return The Map, which is the module's.
  /// @throws SettingsError in the constructor, when something that was given is wrong, with all that is. Declare all
  ///         settings before the first is read: what is declared later is not among them.
  const HXValue& settings() const;
  /// What was declared, and what it is.
  ModuleDescription describe() const;
  /// The method by which a module that has settings tells them.
  static constexpr const char* kSettingsMethod = "settings";

  /// Closes the method table and registers the module with its broker. Called once, on a constructed module that is
  /// owned by a shared pointer.
  /// @throws std::runtime_error when the name is taken.
  /// @throws SettingsError when it was given settings that it does not have, or that it refuses.
  void initModule();

  /// Suspends the calling thread, but no longer than until the module leaves its broker, or the caller in another
  /// process gives up the call that the thread serves.
  /// @throws std::runtime_error naming the module when one of these happens.
  void sleepFor(std::chrono::milliseconds duration);
  /// For methods that run long without sleeping: returns at once, or throws as `sleepFor` does.
  void checkRunning() const;
  /// Ends every `sleepFor`, now and from now on. The broker calls it when the module leaves.
  void interrupt();

 protected:
  void setModuleDescription(std::string text);

  /// Declares a setting, in the constructor. From then on it is among `settings`.
  ///
  /// A module that has settings has a method `settings` too, unless it binds one itself: others ask what it is set to
  /// by that, wherever it runs.
  /// @param setting  Its name is not declared yet.
  /// @throws std::logic_error once the module is initialised, and for a name that is declared already.
  void addSetting(Setting setting);
  /// Says in the constructor what is wrong with a setting that has the right type and range: a text that is no address,
  /// two that contradict each other. From then on `settings` throws, and so does the end of the constructor, so that
  /// all that is wrong is told at once, each with the line where it stands.
  /// @param name     Of a setting that is declared.
  /// @param problem  As in "it comes with key, or not at all".
  /// @throws std::logic_error once the module is initialised, and for a name that is not declared.
  void refuseSetting(const std::string& name, const std::string& problem);

  /// Opens the description of a method. It goes with the next method that is bound, and with that one
  /// only.
  /// @param name         Under which it is called; not empty.
  /// @param module       Whose method it is; for readers.
  /// @param description  One sentence.
  /// @param flags  0, or 4 for methods that mean something only inside this process; handed on to callers.
  void functionName(std::string name, std::string module, std::string description, int flags = 0);
  /// Describes the next parameter, in the order of the method's arguments.
  void addParam(std::string name, std::string description);
  /// Describes the result.
  void setReturn(std::string name, std::string description);
  const mw::MetaMethodBuilder& getCurrentMethodDescription() const { return current_; }

  /// Binds `functor` under the opened description; further methods of the same name become its overloads.
  /// @throws As `bindMethod`.
  void bindMethodOverload(const std::shared_ptr<const HXFunctorBase>& functor);
  /// Binds a member function of `object` under the opened description.
  ///
  /// Parameters are taken by value or by reference to const, and may be, as may the result: a bool; an integer of any
  /// width, which is checked at the call ("300 does not fit uint8"); an enum with an underlying type of its own, as
  /// its number; float, double; std::string, std::string_view; bytes (HXValue::Binary); HXValue; a std::vector, a
  /// std::map by std::string, a std::optional (nothing is nil) of these; an object (mw::AnyObject, std::shared_ptr);
  /// a pointer, for callers of the same process. Anything else does not compile.
  ///
  /// @param object  Must outlive the module's calls.
  /// @param member  For one of several overloads, cast it to the wanted type.
  /// @throws std::runtime_error when no description is open, when more parameters are described than there are, and
  ///         when a method of that name with these types is bound already.
  template <class T, class M>
  void bindMethod(T* object, M member) {
    if constexpr (detail::isBindable<T, M>()) bind(mw::AnyFunction::from(object, member));
  }
  /// Publishes a signal that is a member of the module.
  void bindSignal(std::string name, mw::SignalBase& signal);

  /// Where members are advertised; for what the functions above do not offer.
  /// @throws std::logic_error once the module is initialised.
  mw::ObjectBuilder& objectBuilder();

 private:
  static std::unique_ptr<ModuleSettings> settingsOf(const HXBroker& broker, const std::string& name);
  void bind(mw::AnyFunction function);
  void bindSettings();

  const std::weak_ptr<HXBroker> broker_;
  const std::string name_;
  const std::unique_ptr<ModuleSettings> settings_;
  mw::ObjectBuilder builder_;
  bool closed_ = false;
  mw::MetaMethodBuilder current_;
  std::stop_source interrupted_;
};

/// Base of every module.
///
///     class Door : public HX::HXModule {
///      public:
///       Door(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
///         functionName("open", getName(), "Opens the door.");
///         bindMethod(this, &Door::open);
///       }
///       void open();
///     };
///     HX_MODULE(Door)
class HX_API HXModule : public HXModuleCore {
 public:
  using HXModuleCore::HXModuleCore;
  ~HXModule() override;

  /// Does the module's own work on the calling thread, for hosts that give it one. Does nothing unless overridden.
  virtual void execute();
  /// Empty unless overridden.
  virtual std::string version();
  /// Takes the module out of its broker. An override ends the module's own work first (its threads, its timers), and
  /// calls this one last.
  virtual void exit();
  /// Called once the module is registered: it may be called by others before this returns. An HXError thrown here
  /// undoes the creation.
  virtual void init();
  /// Ends what `execute` does. Does nothing unless overridden.
  virtual void stop();

  /// The memory, wherever it runs, to be called at once: `memory().insertData("Arm/Speed", 0.5)`. To be asked again
  /// rather than kept, for the memory may go and come back.
  ///
  /// What is written by it is written in the module's name, also on threads of the module's own.
  ///
  /// Whoever calls it includes <hxproxies/hxmemoryproxy.h>; a module that does not call it needs no proxy.
  /// @throws std::runtime_error when there is no memory, or the broker has gone.
  template <class Proxy = HXMemoryProxy>
  Proxy memory() {
    return Proxy(memoryProxy());
  }

  /// Follows the changes of the memory, wherever that runs: in the same way, with the same contract. In another process
  /// than the memory's, a lost connection is a gap in what is told.
  ///
  ///     follow_ = follow(HX::journal::Filter({"Arm/"}), [this](const HX::journal::Change& change) { … });
  ///
  /// Keep what it returns as the last member of the module: then it has ended before what the callbacks use goes.
  /// @param filter    Which of the changes.
  /// @param onChange  Runs on the event loop, one at a time, with no lock held; may write what it follows, and may end
  ///                  the follower.
  /// @param options   Where to begin, how often, how soon; further callbacks, which run like this one.
  /// @return Follows as long as it lives.
  /// @throws std::runtime_error when there is no memory, when that is of another process whose broker offers no
  ///         journal, and when it refuses an option.
  /// @par Threads  Any. Waits for the broker where that is another process.
  journal::Follow follow(journal::Filter filter, std::function<void(const journal::Change&)> onChange,
                         journal::FollowOptions options = {});

  /// Makes a module of type T, registers it with `broker` under `name`, and initialises it.
  ///
  /// @return The module; the broker keeps it too, until it leaves.
  /// @throws What the constructor throws, with nothing registered; what `init` throws, with the module out of the
  /// broker
  ///         again, after its `exit` when it was an HXError.
  template <class T, class... Args>
  static std::shared_ptr<T> createModule(const std::shared_ptr<HXBroker>& broker, const std::string& name,
                                         Args&&... args) {
    auto module = construct<T>(broker, name, std::forward<Args>(args)...);
    start(module);
    return module;
  }

 private:
  /// What a constructor writes, its module has written.
  template <class T, class... Args>
  static std::shared_ptr<T> construct(const std::shared_ptr<HXBroker>& broker, const std::string& name,
                                      Args&&... args) {
    const Author author(name);
    const Author::Scope inItsName(author);
    return std::make_shared<T>(broker, name, std::forward<Args>(args)...);
  }
  static void start(const std::shared_ptr<HXModule>& module);
  std::shared_ptr<HXProxy> memoryProxy();

  Mutex memoryMutex_;
  std::shared_ptr<HXProxy> memory_ HX_GUARDED_BY(memoryMutex_);  // As last asked for.
};

}  // namespace HX

/// Makes a library loadable by a broker: its one module is a `Class`, registered under the name of the class.
#define HX_MODULE(Class)                                                             \
  extern "C" HX_API int _createModule(const std::shared_ptr<HX::HXBroker>& broker) { \
    HX::HXModule::createModule<Class>(broker, #Class);                               \
    return 0;                                                                        \
  }                                                                                  \
  extern "C" HX_API int _closeModule() { return 0; }
