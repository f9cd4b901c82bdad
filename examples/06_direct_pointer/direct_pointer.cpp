// Lesson 6: reading a value by its address.
//
// A control loop cannot afford a call for each value. In the process of the memory it may ask once for the address of
// an int or a float, and then read and write the number itself:
//
//  - always through std::atomic_ref, relaxed. The memory stores the same way; plain reads would be a data race.
//  - A read gives a number that somebody stored whole. Two reads may give numbers of different times, also of two keys
//    that were written together.
//  - What is written by the address is what others read by name; nobody is notified, and the time of the last
//    change does not move.
//  - The address is good until the memory is destroyed. The loop must have ended by then.
//  - The key keeps its type and cannot be removed any more.
//
// docs/guide/direct-pointers.md says more.

#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>

#include <atomic>
#include <iostream>
#include <thread>

namespace {

constexpr float kStop = 0.0F;

/// Runs until the wanted speed is kStop; counts its cycles.
void controlLoop(float* speed, int* cycles) {
  const std::atomic_ref wanted(*speed);
  const std::atomic_ref counter(*cycles);
  float last = kStop;
  do {
    last = wanted.load(std::memory_order_relaxed);
    counter.fetch_add(1, std::memory_order_relaxed);
  } while (last != kStop);
}

template <class Action>
void expectRefusal(Action action) {
  try {
    action();
    std::cout << "not refused\n";
  } catch (const std::exception& error) {
    std::cout << error.what() << '\n';
  }
}

void run(HX::HXMemoryProxy& memory) {
  memory.insertData("Arm/Speed", 0.5F);
  float* const speed = memory.getFloatPtr("Arm/Speed");
  int* const cycles = memory.getIntPtr("Arm/Cycles");  // There was none: it is 0 now.
  std::cout << "speed by its address: " << std::atomic_ref(*speed).load(std::memory_order_relaxed) << '\n';

  std::thread loop(controlLoop, speed, cycles);
  while (memory.getData("Arm/Cycles").asInt() < 1000) std::this_thread::yield();
  memory.insertData("Arm/Speed", kStop);  // Seen by the loop, by its address.
  loop.join();
  std::cout << "the loop ran and was stopped\n";

  expectRefusal([&] { memory.insertData("Arm/Speed", "fast"); });
  expectRefusal([&] { memory.removeData("Arm/Speed"); });
}

}  // namespace

int main() {
  const auto broker = HX::HXBroker::create("direct-pointer");
  broker->loadModule("hxmemory");
  run(*broker->getSpecialisedProxy<HX::HXMemoryProxy>("HXMemory"));
  broker->shutdown();
}
