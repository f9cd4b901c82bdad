#include "expect_error.h"
#include "hosting/fileoptions.h"
#include "robot/tomlfile.h"
#include "temporary_folder.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using HX::HXValue;
using testing::ElementsAre;
using testing::IsEmpty;

class RobotFiles : public testing::Test {
 protected:
  // Places then begin with the bare name of the file.
  RobotFiles() : before_(std::filesystem::current_path()) { std::filesystem::current_path(folder_.path()); }
  ~RobotFiles() override { std::filesystem::current_path(before_); }

  static Robot read(const std::string& text) {
    std::ofstream("r.toml") << text;
    return readRobot("r.toml");
  }

  static std::vector<std::string> problemsOf(const std::string& text) {
    try {
      read(text);
    } catch (const HX::SettingsError& error) {
      return error.problems();
    }
    return {};
  }

  /// What the command line `korvo run WORD...` is with a file.
  static std::vector<std::string> lineWith(const std::string& text, const std::vector<std::string>& words) {
    const auto options = optionsOf(freshVerb("run"));
    GivenWords given = tellApart(*options, words);
    addOptionWords(read(text).words, *options, given);
    return given.options;
  }

 private:
  const kit::TemporaryFolder folder_;
  const std::filesystem::path before_;
};

TEST_F(RobotFiles, ThatAreWrongSayWhereAndWhatMayHaveBeenMeant) {
  const std::pair<const char*, const char*> cases[] = {
      {"a = = 1", "r.toml:1:5: Error while parsing value: could not determine value type"},
      {"nmae = \"x\"", "r.toml:1:1: no option nmae; did you mean name?"},
      {"zzzzzzz = 1", "r.toml:1:1: no option zzzzzzz; korvo run --help lists them"},
      {"help = true", "r.toml:1:8: no option help; korvo run --help lists them"},
      {"module = [\"a\"]", "r.toml:1:10: modules are tables: write [modules.NAME]"},
      {"  strict = 1", "r.toml:1:12: strict: 1 is no flag: write true or false"},
      {"name = 5", "r.toml:1:8: name: 5 is no text: write it in quotes"},
      {"name = [\"a\"]", "r.toml:1:8: name takes one value, and no list"},
      {"name = 2026-01-02", "r.toml:1:8: dates and times are written in quotes"},
      {"end-within = \"5x\"",
       "r.toml:1:14: end-within: \"5x\" is no duration: write \"200ms\", \"1.5s\", \"2min\" or \"1h\""},
      {"\n\nlog-level = \"wrn\"",
       "r.toml:3:13: log-level: no level wrn; there is silent, fatal, error, warning, info, verbose, debug"},
      {"[modulse.arm]", "r.toml:1:2: no table modulse; did you mean modules?"},
      {"modules = 1", "r.toml:1:1: modules is a table: write [modules]"},
      {"[modules]\narm = 1", "r.toml:2:1: modules.arm is a table: write [modules.arm]"},
      {"[modules.arm]\nlibrary = 1", "r.toml:2:11: modules.arm.library: 1 is no text: write it in quotes"},
      {"[modules.a]\n[modules.b]\nlibrary = \"./liba.so\"", "r.toml:2:10: modules.b loads the library of modules.a"},
      {"[maps]\nDoor = \"x\"", "r.toml:2:1: \"Door\" = \"x\" is no mapping: write \"SERVICE.SIGNAL\" = \"EVENT\""},
      {"[log-levels]\n\"a*\" = \"inof\"", "r.toml:2:8: log-levels.a*: no \"inof\"; did you mean info?"},
      {"no-memory = true\n[maps]\n\"Door.opened\" = \"x\"",
       "r.toml:2:1: maps: it is the memory that raises signals as events, and no-memory leaves it out"},
      {"[expect]\nLidar = 200",
       "r.toml:2:9: expect.Lidar: 200 is no duration: write \"200ms\", \"1.5s\", \"2min\" or \"1h\""},
  };
  for (const auto& [text, problem] : cases) EXPECT_THAT(problemsOf(text), ElementsAre(problem)) << text;
  EXPECT_THAT(problemsOf("strict = 1\nnmae = 2\n[modulse]"),
              ElementsAre(testing::StartsWith("r.toml:1:10"), testing::StartsWith("r.toml:2:1"),
                          testing::StartsWith("r.toml:3:2")))
      << "all at once, in the order of the file";
  EXPECT_THROW(readRobot("missing.toml"), std::runtime_error);
  EXPECT_THROW(readRobot("."), std::runtime_error);
}

TEST_F(RobotFiles, ThatAreNoneSayWhatMayHaveBeenMeant) {
  std::ofstream("robot.toml") << "";
  const auto options = optionsOf(freshVerb("run"));
  EXPECT_NO_THROW(requireRobotFile("robot.toml", *options));
  const std::pair<const char*, const char*> cases[] = {
      {"more", "no file more"},
      {"live", "no file live; did you mean --live?"},
      {"consle", "no file consle; did you mean --console?"},
      {"top", "no file top; did you mean korvo top?"},
      {"robto.toml", "no file robto.toml; did you mean robot.toml?"},
      {"./robot.tml", "no file ./robot.tml; did you mean ./robot.toml?"},
      {"/nowhere/robot.toml", "no file /nowhere/robot.toml"},
      {"build/libarm.so", "build/libarm.so is a module library; write --module build/libarm.so"},
  };
  for (const auto& [word, said] : cases) {
    EXPECT_EQ(errorOf([&, name = word] { requireRobotFile(name, *options); }), said);
  }
}

TEST_F(RobotFiles, GiveTheOptionsThatTheCommandLineDoesNot) {
  const std::string text =
      "name = \"torso\"\nend-within = \"1.5s\"\nstrict = true\nlive = true\ndata-dir = [\".\"]\nno-memory = false";
  EXPECT_THAT(lineWith(text, {}),
              ElementsAre("--data-dir=./.", "--end-within=1.5", "--live", "--name=torso", "--strict"));
  EXPECT_THAT(
      lineWith(text, {"--name", "leg", "--data-dir", "x", "--console"}),
      ElementsAre("--name", "leg", "--data-dir", "x", "--console", "--data-dir=./.", "--end-within=1.5", "--strict"))
      << "the live view cannot be beside the console";
  EXPECT_THAT(lineWith("end-within = 2", {"--end-within=3"}), ElementsAre("--end-within=3"));
}

TEST_F(RobotFiles, HaveTheirModulesLoadedInTheirOrderBeforeOthers) {
  const Robot robot = read(
      "[modules.leg]\nspeed = 3000000000\n[modules.arm]\nlibrary = \"build/libarm.so\"\n[modules.eye]\nown-process = "
      "true");
  HostingOptions options;
  options.modules = {"hand", "arm", "leg"};
  takeModules(robot.file, true, options);
  EXPECT_THAT(options.modules, ElementsAre("leg", "build/libarm.so", "hand"));
  EXPECT_EQ(options.settings.at("leg").entries.at("speed").value, HXValue(std::int64_t{3'000'000'000}));
  EXPECT_THAT(options.settings.at("arm").entries, IsEmpty()) << "where it is, is no setting";
  HostingOptions hosted;
  hosted.modules = {"eye"};
  takeModules(robot.file, false, hosted);
  EXPECT_THAT(hosted.modules, ElementsAre("eye"));
}

TEST_F(RobotFiles, YieldToWhatTheCommandLineSets) {
  const RobotFile file =
      read("[modules.eye]\nlibrary = \"libcamera.so\"\nperiod = \"20ms\"\n[modules.eye.Left]\nx = 1").file;
  HostingOptions options;
  takeModules(file, true, options);
  options.sets = {"eye.period=5ms", "camera.Left.y=[2, true]", "camera.name=\"5\"", "eye.port=5", "eye.text=a = b"};
  takeSets(file, options.modules, options);
  HXValue settings = HXValue::map();
  for (const auto& [name, given] : options.settings.at("camera").entries) settings.mapSet(name, given.value);
  EXPECT_EQ(settings, HXValue::map({{"period", "5ms"},
                                    {"Left", HXValue::map({{"x", 1}, {"y", HXValue::list({2, true})}})},
                                    {"name", "5"},
                                    {"port", 5},
                                    {"text", "a = b"}}));
  EXPECT_EQ(options.settings.at("camera").entries.at("Left").table->entries.size(), 2U);
  const std::pair<const char*, const char*> wrong[] = {
      {"period=5ms", "--set period=5ms: write MODULE.SETTING=VALUE"},
      {"eye.period", "--set eye.period: write MODULE.SETTING=VALUE"},
      {"eye.=1", "--set eye.=1: write MODULE.SETTING=VALUE"},
      {"camra.period=1", "--set camra.period=1: no module camra is loaded; did you mean camera?"},
  };
  for (const auto& [set, problem] : wrong) {
    options.sets = {set};
    EXPECT_EQ(errorOf([&] { takeSets(file, options.modules, options); }), problem);
  }
}

TEST_F(RobotFiles, HandExpectationsToTheModuleThatSeesToThem) {
  const RobotFile file = read("[expect]\n\"Lidar/Scan\" = \"200ms\"").file;
  ASSERT_EQ(file.modules.size(), 1U);
  EXPECT_EQ(file.modules[0].library, "freshness");
  EXPECT_EQ(file.modules[0].settings.entries.at("expect").value, HXValue::map({{"Lidar/Scan", "200ms"}}));
}

}  // namespace
}  // namespace korvo
