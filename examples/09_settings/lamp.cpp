// Lesson 9: settings.
//
// What differs from robot to robot stands in a file, not in the source: `korvo run robot.toml` loads this module with
// the settings of its table. The module declares what it has, each with its type and bounds; what is missing has the
// default, and what is wrong never reaches it: the start ends with file, line, column, and what may have been meant.
//
//     $ korvo settings lamp            what can be set
//     $ korvo check robot.toml         what the file would run, or what is wrong with it

#include <hxcommon/hxmodule.h>
#include <hxcommon/units.h>

#include <chrono>
#include <string>

class Lamp : public HX::HXModule {
 public:
  Lamp(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    addSetting(HX::Setting::text("colour", "white", "The colour that it has when it is on.").oneOf({"white", "amber"}));
    addSetting(HX::Setting::duration("blink", "500ms", "How long it is on, and off.").between("50ms", "10s"));

    functionName("describe", getName(), "Says what it was set to.");
    setReturn("text", "One line.");
    bindMethod(this, &Lamp::describeSettings);
  }

  std::string describeSettings() const {
    const auto blink = std::chrono::duration_cast<std::chrono::milliseconds>(HX::toDuration(settings()["blink"]));
    return settings()["colour"].asString() + ", " + std::to_string(blink.count()) + " ms";
  }
};

HX_MODULE(Lamp)
