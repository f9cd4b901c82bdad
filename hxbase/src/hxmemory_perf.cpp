#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxproxies/hxmemoryproxy.h>
#include <hxtiming/stopwatch.h>

#include <iostream>

namespace HX {
namespace {

constexpr int kWrites = 1000;

void printHeading(const char* route) { std::cout << kWrites << ' ' << route << std::endl; }

template <class Write>
void printTimeOf(Stopwatch& stopwatch, Write&& write) {
  stopwatch.start();
  for (int i = 0; i < kWrites; ++i) write();
  stopwatch.stop();
  std::cout << "time: " << stopwatch.diffNs() / 1'000'000 << std::endl;
}

}  // namespace

void HXMemory::perf() {
  Stopwatch stopwatch(0);
  const std::string key = "perf";

  printHeading("Direct call");
  printTimeOf(stopwatch, [&] { insertData(key, 1); });

  printHeading("Specialized proxy call");
  const auto specialised = getParentBroker()->getSpecialisedProxy<HXMemoryProxy>("HXMemory");
  printTimeOf(stopwatch, [&] { specialised->insertData(key, 1); });

  printHeading("Proxy call");
  const auto generic = getParentBroker()->getProxy("HXMemory", 0);
  if (!generic) throw std::runtime_error("This object is null");
  printTimeOf(stopwatch, [&] { generic->call("insertData", key, 1); });
}

}  // namespace HX
