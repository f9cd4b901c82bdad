// What must not compile: each line that ends in `// refused: WORDS` gives one error, whose sentence contains these
// words. `check` beside this file compiles it and sees to that.

#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>

#include <memory>

namespace {

struct Pose {};
enum Loose { kLoose };

class Other {
 public:
  void method() {}
};

class Module : public HX::HXModuleCore {
 public:
  explicit Module(const std::shared_ptr<HX::HXBroker>& broker) : HXModuleCore(broker, "Module") {
    bindMethod(this, &Module::takesPose);         // refused: takes a type that calls cannot carry
    bindMethod(this, &Module::takesPoses);        // refused: takes a type that calls cannot carry
    bindMethod(this, &Module::takesNumberedMap);  // refused: takes a type that calls cannot carry
    bindMethod(this, &Module::takesUnique);       // refused: takes a type that calls cannot carry
    bindMethod(this, &Module::returnsPose);       // refused: returns a type that calls cannot carry
    bindMethod(this, &Module::takesLoose);        // refused: enum without an underlying type
    bindMethod(this, &Module::returnsLoose);      // refused: enum without an underlying type
    bindMethod(this, &Module::writes);            // refused: by value or by reference to const
    bindMethod(this, &Module::moves);             // refused: by value or by reference to const
    bindMethod(this, &Other::method);             // refused: cannot be called on the object
    bindMethod(this, &Module::member);            // refused: is a member function
    bindMethodOverload(
        HX::createFunctor(this, &Module::takesTwoPoses));  // refused: takes a type that calls cannot carry
  }

  void takesPose(Pose) {}
  void takesTwoPoses(const Pose&, const Pose&) {}
  void takesPoses(const std::vector<Pose>&) {}
  void takesNumberedMap(const std::map<int, int>&) {}
  void takesUnique(std::unique_ptr<int>) {}
  Pose returnsPose() { return {}; }
  void takesLoose(int, Loose) {}
  Loose returnsLoose() { return kLoose; }
  void writes(int&) {}
  void moves(std::string&&) {}
  int member = 0;
};

[[maybe_unused]] void store(HX::HXMemoryProxy& memory) {
  memory.insertData("key", Pose{});                       // refused: The memory keeps bools, numbers up to 64 bits
  memory.insertData("key", std::vector<long double>{});   // refused: The memory keeps bools, numbers up to 64 bits
  memory.insertData("key", &memory);                      // refused: The memory keeps bools, numbers up to 64 bits
  memory.insertData("key", {Pose{}});                     // refused: The memory keeps bools, numbers up to 64 bits
  memory.raiseEvent("event", nullptr);                    // refused: The memory keeps bools, numbers up to 64 bits
  memory.raiseEvent("event", {&memory});                  // refused: The memory keeps bools, numbers up to 64 bits
  memory.raiseMicroEvent("event", std::map<int, int>{});  // refused: The memory keeps bools, numbers up to 64 bits
}

}  // namespace
