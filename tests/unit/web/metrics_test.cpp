#include "temporary_folder.h"

#include <array>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <metrics/metrics.h>
#include <metrics/metricstext.h>

#include <gtest/gtest.h>

namespace {

using namespace HX::web;

/// A tree with a key of each kind of trouble.
Tree someTree() {
  Tree made;
  const auto store = [&](std::string_view key, const HX::HXValue& value) {
    HX::journal::Change change;
    change.key = key;
    change.value = value;
    change.kind = 1;
    made.change(change);
  };
  store("Host/CPU", 0.5);
  store("Host/\"quoted\" \\ and\nbroken", true);
  store("Host/Text", "no number");
  store("Arm/Speed", 2);
  return made;
}

/// What modules tell of a memory with two subscribers, one of which is slow.
ServerFigures someFigures() {
  using HX::HXValue;
  ServerFigures figures{3, 7, "1.2"};
  const HXValue follower = HXValue::map({{"who", "HXKeeper"}, {"behind", 5}, {"gaps", 1}});
  figures.journal = HXValue::map({{"subscriptions", 2},
                                  {"slow", 1},
                                  {"bounds", HXValue::list({0.001, 1.0})},
                                  {"calls", HXValue::list({HXValue::list({"Arm", HXValue::list({4, 0, 1}), 7.5})})},
                                  {"followers", HXValue::list({follower, follower})}});
  figures.freshness = HXValue::list({HXValue::list({"Lidar/Scan", 0.5, 0.2, true})});
  figures.dropped = 9;
  return figures;
}

TEST(MetricsText, IsTheSameInEveryCountry) {
  // Where there is no such locale, there is nothing that it could spoil.
  std::setlocale(LC_ALL, "de_DE.UTF-8");
  MetricsText text;
  text.family("a", "gauge", "A.");
  text.sample(0.5, {{"k", "x\"\\\n"}});
  text.sample(std::nan(""));
  text.sample(-HUGE_VAL);
  const std::array bounds{0.001, 0.5};
  const std::array<std::uint64_t, 3> counts{1, 2, 3};
  text.family("b", "histogram", "B.");
  text.histogram(bounds, counts, 1.25);
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(text.take(),
            "# HELP a A.\n# TYPE a gauge\na{k=\"x\\\"\\\\\\n\"} 0.5\na NaN\na -Inf\n"
            "# HELP b B.\n# TYPE b histogram\nb_bucket{le=\"0.001\"} 1\nb_bucket{le=\"0.5\"} 3\n"
            "b_bucket{le=\"+Inf\"} 6\nb_sum 1.25\nb_count 6\n");
}

TEST(Metrics, TellOnlyChosenKeysThatAreNumbers) {
  const std::string text = metricsOf(someTree(), {"Host/*"}, {3, 7, "1.2"});
  EXPECT_NE(text.find("korvo_key_value{key=\"Host/CPU\"} 0.5\n"), std::string::npos);
  EXPECT_NE(text.find("korvo_key_value{key=\"Host/\\\"quoted\\\" \\\\ and\\nbroken\"} 1\n"), std::string::npos);
  EXPECT_EQ(text.find("Host/Text"), std::string::npos);
  EXPECT_EQ(text.find("Arm/Speed"), std::string::npos);
  EXPECT_NE(text.find("korvo_keys{kind=\"data\"} 4\n"), std::string::npos);
  EXPECT_NE(text.find("korvo_web_connections 3\n"), std::string::npos);
  EXPECT_EQ(metricsOf(someTree(), {}, {}).find("korvo_key_value"), std::string::npos);
}

TEST(Metrics, TellWhatModulesKnowWhereTheyAreThere) {
  const std::string text = metricsOf(someTree(), {}, someFigures());
  for (const char* line :
       {"korvo_subscriptions 2", "korvo_subscriptions_slow 1", "korvo_subscriptions_dropped_total 9",
        "korvo_subscriber_call_seconds_bucket{subscriber=\"Arm\",le=\"1\"} 4",
        "korvo_subscriber_call_seconds_count{subscriber=\"Arm\"} 5",
        "korvo_subscriber_call_seconds_sum{subscriber=\"Arm\"} 7.5", "korvo_followers{follower=\"HXKeeper\"} 2",
        "korvo_follower_behind{follower=\"HXKeeper\"} 5", "korvo_follower_gaps{follower=\"HXKeeper\"} 2",
        "korvo_key_overdue{key=\"Lidar/Scan\"} 1", "korvo_key_silence_seconds{key=\"Lidar/Scan\"} 0.5"}) {
    EXPECT_NE(text.find(std::string(line) + "\n"), std::string::npos) << line;
  }
  EXPECT_EQ(metricsOf(someTree(), {}, {}).find("korvo_subscri"), std::string::npos);
}

TEST(Metrics, ArePrometheusText) {
  if (std::system("command -v promtool >/dev/null") != 0) GTEST_SKIP() << "no promtool";
  const kit::TemporaryFolder folder;
  const auto file = folder.path() / "metrics";
  std::ofstream(file) << metricsOf(someTree(), {"*"}, someFigures());
  EXPECT_EQ(std::system(("promtool check metrics < " + file.string()).c_str()), 0);
}

}  // namespace
