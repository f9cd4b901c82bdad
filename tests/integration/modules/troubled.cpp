#include <hxcommon/hxmodule.h>
#include <libmw/eventloop.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

/// A module that hangs for ever at the stage that TROUBLE names, and ends or forks its process when it is asked to.
class Troubled : public HX::HXModule {
 public:
  Troubled(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("crash", getName(), "Does what ends a process.");
    addParam("how", "segv, call, abort, throw, signal or overflow.");
    bindMethod(this, &Troubled::crash);
    functionName("fork", getName(), "Has a child, which calls exit or stays for some seconds.");
    addParam("how", "exit or stay.");
    setReturn("status", "With which it has ended; -1 when it has not within five seconds.");
    bindMethod(this, &Troubled::fork);
    meet("constructor");
  }

  void init() override { meet("init"); }

  void exit() override {
    meet("exit");
    HXModule::exit();
  }

  int fork(const std::string& how) {
    const pid_t child = ::fork();
    if (child == 0) {
      if (how == "exit") std::exit(7);
      ::sleep(6);
      ::_exit(0);
    }
    int status = -1;
    for (int i = 0; i < 500 && how == "exit" && ::waitpid(child, &status, WNOHANG) == 0; ++i) ::usleep(10'000);
    if (status == -1 && how == "exit") ::kill(child, SIGKILL);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void crash(const std::string& how) {
    if (how == "segv") *nothing() = 1;
    if (how == "call") reinterpret_cast<void (*)()>(const_cast<int*>(nothing()))();
    if (how == "abort") std::abort();
    if (how == "throw") std::thread([] { throw std::runtime_error("the motor burns"); }).join();
    if (how == "signal") std::raise(SIGFPE);
    if (how == "overflow") mw::defaultLoop().async([] { std::cout << dig(0); }).wait();
  }

 private:
  static volatile int* nothing() {
    static int* volatile address = nullptr;
    return address;
  }

  /// Until the stack of the thread is used up.
  static int dig(int depth) {
    volatile char earth[4096] = {};
    return depth < std::numeric_limits<int>::max() ? dig(depth + 1) + earth[depth % 4096] : 0;
  }

  void meet(std::string_view stage) {
    const char* const trouble = std::getenv("TROUBLE");
    if (!trouble || stage != trouble) return;
    std::cout << "in " << stage << std::endl;
    while (true) std::this_thread::sleep_for(std::chrono::hours(1));
  }
};

HX_MODULE(Troubled)
