// Lesson 11: a control loop that reads at memory speed.
//
// Once a millisecond it reads its target out of shared memory: without a call, without waking anybody, and it knows how
// fresh what it reads is. When the broker is killed it stands still within a tenth of a second, and when the broker is
// back it goes on. Only the loop's own state is printed, and only when it changes.
//
//     $ korvo run                      in one terminal
//     $ bin/controller                 in another
//     $ korvo set Arm/Target 0.5       in a third
//
// A loop whose target is written all the time would ask `seen.isFresh(50ms)`: there is a value, it is no older than
// that, and the broker runs. This one's target is set by hand, now and then, so that it asks for the last two alone.

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/local.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include <fmt/format.h>

namespace {

using namespace std::chrono_literals;

/// What the arm is to do.
std::string command(const HX::Seen<double>& target, bool isBrokerAlive) {
  if (target.state == HX::ViewState::Disconnected || !isBrokerAlive) return "stand still: the broker is gone";
  if (!target.isPresent()) return "stand still: no target";
  return fmt::format("move to {}", target.value());
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before there is a second thread, so that they end this one's wait and no other.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  try {
    const auto broker = HX::HXBroker::create("controller");
    const mw::LocalClient joined(*broker->session(), argc > 1 ? argv[1] : "");
    const auto memory = broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory");
    // A machine under load may keep the broker from running for a while.
    auto target = memory->view<double>("Arm/Target", {.aliveWithin = 10s});
    std::string before;
    const timespec period{0, 1'000'000};
    while (sigtimedwait(&stop, nullptr, &period) < 0) {
      const std::string now = command(target.read(), target.alive(10s));
      if (now != before) std::cout << now << std::endl;
      before = now;
    }
    broker->shutdown();
  } catch (const std::exception& error) {
    std::cerr << "controller: " << error.what() << '\n';
    return 1;
  }
}
