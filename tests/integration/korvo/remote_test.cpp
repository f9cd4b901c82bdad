#include "broker.h"
#include "program.h"
#include "temporary_folder.h"

#include <filesystem>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The commands of a shell against a broker in another process.

namespace {

using namespace std::chrono_literals;
using kit::Broker;
using kit::check;
using kit::isAnswered;
using kit::korvo;
using kit::module;
using kit::Process;
using kit::Row;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using Text = testing::Matcher<const std::string&>;
using Words = std::vector<std::string>;

std::string nested(std::size_t depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); }

TEST(Commands, DoInARunningBrokerWhatTheyDoInAConsole) {
  const Broker broker({"--module", module("greeter"), "--module", module("sleeper")});
  const Row rows[] = {
      {{"set", "Foo", "1"}},
      {{"get", "Foo"}, "1\n"},
      {{"get", "--json", "Foo"}, "{\"key\":\"Foo\",\"value\":1}\n"},
      {{"set", "Left \"arm\"", "{\"x\": [1, -2.5]}"}},
      {{"get", "Left \"arm\"", "--broker", "korvo"}, "{\"x\":[1,-2.5]}\n"},
      {{"set", "--", "--json", "-1"}},
      {{"get", "--json", "--", "--json"}, "{\"key\":\"--json\",\"value\":-1}\n"},
      {{"ls", "--json", "F"}, "{\"key\":\"Foo\",\"kind\":\"Data\",\"type\":\"Int\"}\n"},
      {{"type", "Foo", "--json"}, "{\"key\":\"Foo\",\"kind\":\"Data\"}\n"},
      {{"time", "Foo", "--json"}, StartsWith("{\"key\":\"Foo\",\"time\":\"2")},
      {{"set", "Count", "-"}, "", "", 0, "1\n\n2\n3"},
      {{"get", "Count"}, "3\n"},
      {{"raise", "Door", "-"}, "", StartsWith("error: standard input line 2: JSON"), 1, "true\nfalse?\n1\n"},
      {{"history", "Door"}, AllOf(StartsWith("{\"value\":true,\"time\":\""), testing::Not(HasSubstr("1}")))},
      {{"describe", "Door", "Front door"}},
      {{"descriptions", "Door", "--json"}, "{\"key\":\"Door\",\"kind\":\"Event\",\"description\":\"Front door\"}\n"},
      {{"declare", "Window", "Greeter"}},
      {{"events", "--json"}, HasSubstr("{\"key\":\"Window\"}\n")},
      {{"micro-events"}, "KorvoReady\n"},
      {{"expect", "Foo", "1h", "Bar", "30min"}},
      {{"expect"}, AllOf(StartsWith("Bar\t"), HasSubstr("\tof 30min\nFoo\t"), HasSubstr("\tof 60min\n"))},
      {{"expect", "--remove", "Bar"}},
      {{"expect", "--remove", "Fo"}, "", "error: not expected: Fo; did you mean Foo?\n", 1},
      {{"expect", "--json"},
       AllOf(StartsWith("{\"key\":\"Foo\",\"age\":"), HasSubstr(",\"limit\":3600.0,\"overdue\":false}"))},
      {{"expect", "Foo", "1"}, "", StartsWith("error: expect: LIMIT: \"1\" is no duration"), 2},
      {{"expect", "Foo"}, "", StartsWith("error: expect: LIMIT is missing"), 2},
      {{"expect", "Foo", "0s"}, "", StartsWith("error: expect: LIMIT: 0s is not above zero"), 2},
      {{"get", "Foo", "--max-age", "1h"}, "1\n"},
      {{"get", "Foo", "Door", "--max-age", "1us"},
       "",
       AllOf(HasSubstr("error: Foo is "), HasSubstr("error: Door is "), HasSubstr(" old, more than 1us\n")),
       1},
      {{"subscribers", "Door"}, ""},
      {{"map", "Greeter", "nothing", "Nothing"}},
      {{"services"}, "HXMemory\nHXJournal\nHXFreshness\nHXViews\nGreeter\nSleeper\nBroker\n"},
      {{"methods", "Greeter"}, StartsWith("greet(string whom) -> string\n")},
      {{"call", "Greeter", "greet", "\"you\""}, "\"Hello, you\"\n"},
      {{"call", "Greeter", "greet", "\"you\"", "--json"}, "{\"result\":\"Hello, you\"}\n"},
      {{"call", "Sleeper", "sleep", "--timeout", "2"},
       "",
       "error: broker korvo did not answer Sleeper.sleep within 2 s\n",
       1},
      {{"load", "./" + std::filesystem::relative(module("throwsininit")).string()},
       "",
       HasSubstr("ThrowsInInit.init: no motor"),
       1},
      {{"rm", "Foo"}},
      {{"perf"}},
      {{"complete", "--", "get", "Cou"}, "Count\n"},
      {{"complete", "--", "call", "Gree"}, "Greeter\n"},
      {{"complete", "--", "call", "Greeter", "gr"}, "greet\n"},
      {{"complete", "--", "get", "--broker", ""}, "korvo\n"},
      {{"call", "Broker", "modules"},
       "[\"HXMemory\",\"HXJournal\",\"HXFreshness\",\"HXViews\",\"Greeter\",\"Sleeper\"]\n"},
      {{"run"}, "", "error: a broker named korvo is running already\n", 1}};
  for (const Row& row : rows) check(row);
}

TEST(Commands, EndAtOnceWithoutABroker) {
  const Row rows[] = {{{"get", "Foo"}, "", StartsWith("error: no broker is running in /"), 3},
                      {{"watch", "Foo", "--broker", "torso"}, "", HasSubstr("torso"), 3},
                      {{"host", "--module", module("greeter")}, "", HasSubstr("no broker is running"), 3},
                      {{"top"}, "", HasSubstr("no broker"), 3},
                      {{"get", "Foo", "--broker", "a/b"}, "", HasSubstr("--broker: \"a/b\" cannot name a broker"), 2},
                      {{"run", "--name", ".hid"}, "", HasSubstr("--name: \".hid\" cannot name a broker"), 2},
                      {{"get", "Foo", "--timeout", "nan"}, "", HasSubstr("--timeout: nan is no time"), 2},
                      {{"complete", "--", "get", "F"}}};
  for (const Row& row : rows) check(row);
}

TEST(Commands, FindNoBrokerWhereThereIsNoFolderOfSockets) {
  const auto result = Process(korvo({"get", "Foo"}), {"XDG_RUNTIME_DIR=/nowhere"}).finish();
  EXPECT_THAT(result.err, HasSubstr("/nowhere/korvo: No such file"));
  EXPECT_EQ(result.status, 3);
  const kit::TemporaryFolder folder;
  const auto tooLong = folder.path() / std::string(100, 'x');
  std::filesystem::create_directory(tooLong);
  for (const Words& words : {Words{"get", "Foo"}, Words{"run", "--no-memory"}}) {
    const auto refused = Process(korvo(words), {"XDG_RUNTIME_DIR=" + tooLong.string()}).finish();
    EXPECT_THAT(refused.err, AllOf(HasSubstr(tooLong.string()), HasSubstr("set XDG_RUNTIME_DIR to a shorter one")));
    EXPECT_EQ(refused.status, 1);
  }
}

TEST(Commands, HaveOneOfSeveralBrokersChosen) {
  const Broker left({"--no-memory", "--name", "left"});
  const Broker right({"--no-memory", "--name", "right"});
  check({{"services"}, "", HasSubstr("several brokers are running: left, right; choose one with --broker"), 2});
  check({{"host", "--module", module("greeter")}, "", HasSubstr("several brokers are running: left, right"), 2});
  check({{"services", "--broker", "right"}, "Broker\n"});
  check({{"services", "--broker", "rihgt"}, "", "error: no broker named rihgt is running; did you mean right?\n", 3});
  check({{"brokers"}, AllOf(StartsWith("left   process "), HasSubstr("\nright  process "))});
  const auto chosen = [](const std::string& name) {
    return Process(korvo({"call", "Broker", "name"}), {"KORVO_BROKER=" + name}).finish();
  };
  EXPECT_EQ(chosen("left").out, "\"left\"\n");
  EXPECT_EQ(chosen("a/b").status, 2);
}

/// What a shell makes of `commands`; in it, $korvo is the program.
Process::Result runShell(const std::string& commands) {
  return kit::runProcess({"/bin/bash", "-c", "korvo=" KORVO_PROGRAM "\n" + commands});
}

TEST(Commands, GoTogetherInAShell) {
  const Broker broker;
  EXPECT_EQ(runShell(R"(
    $korvo set 'Left arm' 1 '$(x)' 2 '\n' '"a"'
    $korvo ls | grep -v Memory | while read -r key; do $korvo get "$key"; done)")
                .out,
            "2\n0\n1\n\"a\"\n");
  // Whoever ends before all was read ends quietly, by the signal for that.
  EXPECT_EQ(runShell("$korvo top | head -1 >/dev/null; echo ${PIPESTATUS[0]}").out, "141\n");
  EXPECT_EQ(runShell("$korvo ls | true; $korvo top | true").err, "");
}

TEST(Completion, OfBashRunsNothingThatStandsInAName) {
  const auto result = runShell(". " KORVO_COMPLETION R"(
    for name in 'Q$(touch x)' "it's" 'a"b' 'a`b`' 'a\b' 'a!b' '\\"$'; do
      for quote in "'" '"' ''; do
        _korvo_quote "$name" "$quote"
        eval "word=$quoted$quote"
        _korvo_unquote "$quoted$quote"
        [[ $word == "$name" && $plain == "$name" ]] || echo "$quoted"
      done
    done)");
  EXPECT_EQ(result.out + result.err, "");
}

TEST(Commands, ExportAndImportWholeSetsOfKeys) {
  const Broker broker;
  const std::string lines =
      "{\"key\":\"\",\"kind\":\"Data\",\"value\":\"no name\",\"description\":\"\"}\n"
      "{\"key\":\"A\",\"kind\":\"Data\",\"value\":1.5,\"msgpack\":\"ca3fc00000\",\"description\":\"a float\"}\n"
      "{\"key\":\"B\",\"kind\":\"Event\",\"value\":[1],\"description\":\"\"}\n"
      "{\"key\":\"C\",\"kind\":\"MicroEvent\",\"value\":null,\"description\":\"\"}\n";
  const Row rows[] = {
      {{"import", "-"}, "", "", 0, lines},
      {{"export"}, lines},
      {{"export", "B"}, HasSubstr("\"B\"")},
      {{"import", "-"},
       "",
       "error: standard input line 2: it has no key; nothing after it was imported\n",
       1,
       "{\"key\":\"D\",\"value\":1}\n{}\n{\"key\":\"E\",\"value\":1}\n"},
      {{"ls", "--json", "E"}, testing::Not(HasSubstr("\"E\""))},
      {{"import", "-", "--keep-going"},
       "",
       "error: standard input line 1: it has no key\nerror: standard input: 1 lines were not imported\n",
       1,
       "{}\n{\"key\":\"E\",\"value\":1}\n"},
      {{"get", "E"}, "1\n"},
      {{"import", "-"},
       "",
       AllOf(StartsWith("error: standard input line 2: "), HasSubstr("nested more than 256 deep"),
             HasSubstr("; nothing after line 3 was imported\n")),
       1,
       "{\"key\":\"F\",\"value\":1}\n{\"key\":\"Deep\",\"value\":" + nested(300) + "}\n{\"key\":\"G\",\"value\":1}\n"},
      {{"get", "F"}, "1\n"},
      {{"get", "G"}, "1\n"},
      {{"import", "/"}, "", HasSubstr("Is a directory"), 1},
      {{"import", "/nowhere"}, "", HasSubstr("/nowhere: No such file"), 2}};
  for (const Row& row : rows) check(row);
}

TEST(Watch, PrintsChangesAndGoesOnWithTheNextBroker) {
  std::optional<Broker> broker(std::in_place);
  kit::runKorvo({"raise", "Door", "0"});
  Process plain(korvo({"watch", "Door", "Window", "--snapshot", "--wait"}));
  Process json(korvo({"watch", "Door", "--json", "--snapshot"}));
  EXPECT_TRUE(plain.waitFor("  state     Door  0"));
  EXPECT_TRUE(json.waitFor("{\"key\":\"Door\",\"what\":\"state\",\"value\":0,"));
  kit::runKorvo({"set", "Window", "1"});
  EXPECT_TRUE(plain.waitFor("  stored    Window  1"));
  (*broker)->send(SIGTERM);
  EXPECT_EQ((*broker)->finish().status, 0);
  EXPECT_TRUE(plain.waitFor("watching goes on when the broker is back"));
  broker.emplace();
  EXPECT_TRUE(plain.waitFor("-- gap: an unknown number of changes was missed"));
  EXPECT_TRUE(json.waitFor("{\"gap\":{\"from\":"));
  kit::runKorvo({"raise", "Door", "\"after\""});
  EXPECT_TRUE(plain.waitFor("Door  \"after\""));
  EXPECT_TRUE(json.waitFor("\"value\":\"after\","));
  for (Process* process : {&plain, &json}) {
    process->send(SIGINT);
    EXPECT_EQ(process->finish().status, 0);
  }
}

TEST(Watch, EndsByItselfAndWithItsReader) {
  const Broker broker;
  kit::runKorvo({"set", "Foo", "1"});
  check({{"watch", "Foo", "--snapshot", "--once"}, HasSubstr("state     Foo  1\n")});
  check({{"watch", "Foo", "--for", "10ms"}, ""});
  check({{"watch", "Fooo"}, "", HasSubstr("did you mean Foo?"), 1});
  check({{"watch", "Foo", "--since", "x"}, "", HasSubstr("--since: x is neither a place (EPOCH:REVISION)"), 2});
  check({{"ls", "Fooo"}, ""});
  EXPECT_EQ(runShell("$korvo watch Foo --snapshot --json | head -1 | wc -l").out, "1\n");
}

TEST(Host, OffersItsModulesThroughTheBrokerAndFindsItAgain) {
  std::optional<Broker> broker(std::in_place);
  Process host(korvo({"host", "--module", module("greeter"), "--log-level", "error"}));
  ASSERT_TRUE(host.waitFor("hosting for broker korvo: Greeter"));
  check({{"call", "Greeter", "greet", "\"you\""}, "\"Hello, you\"\n"});
  (*broker)->send(SIGTERM);
  EXPECT_EQ((*broker)->finish().status, 0);
  broker.emplace();
  ASSERT_TRUE(host.waitFor("broker korvo is back"));
  check({{"call", "Greeter", "greet", "\"me\""}, "\"Hello, me\"\n"});
  host.send(SIGTERM);
  const auto result = host.finish(10s);
  EXPECT_EQ(result.out, "Greeter leaves\n");
  EXPECT_EQ(result.status, 0);
}

TEST(Extractor, KnowsItsSubscribersWhoeverIsKilledOrStartedAnew) {
  std::optional<Broker> broker(std::in_place);
  const auto host = [](const std::string& name, const std::string& service) {
    auto process = std::make_unique<Process>(korvo({"host", "--module", name, "--log-level", "error"}));
    EXPECT_TRUE(process->waitFor("hosting for broker korvo: " + service));
    return process;
  };
  const auto extractor = host("thermometer", "Thermometer");
  const auto killed = host("eventlogger", "EventLogger");
  const Words question{"call", "Thermometer", "subscribers"};
  const Words listen{"call", "EventLogger", "listen", "\"Thermometer/Temperature\""};
  check({listen});
  EXPECT_TRUE(isAnswered(question, "[\"EventLogger\"]\n"));
  killed->send(SIGKILL);
  EXPECT_TRUE(isAnswered(question, "[]\n"));

  const auto subscriber = host("eventlogger", "EventLogger");
  check({listen});
  EXPECT_TRUE(isAnswered(question, "[\"EventLogger\"]\n"));
  (*broker)->send(SIGTERM);
  EXPECT_EQ((*broker)->finish().status, 0);
  broker.emplace();
  EXPECT_TRUE(subscriber->waitFor("broker korvo is back"));
  EXPECT_TRUE(isAnswered({"events"}, testing::HasSubstr("Thermometer/Temperature"))) << "it is declared again";
  EXPECT_TRUE(isAnswered(question, "[\"EventLogger\"]\n")) << "it has subscribed again by itself";
  subscriber->send(SIGKILL);
  EXPECT_TRUE(isAnswered(question, "[]\n"));
}

TEST(Extractor, RunsForWhoWatchesItsEvent) {
  const Broker broker({"--module", "thermometer"});
  const Words question{"call", "Thermometer", "subscribers"};
  {
    Process listens(korvo({"watch", "Thermometer/", "--no-demand", "--snapshot"}));
    EXPECT_TRUE(listens.waitFor("Thermometer/Temperature"));
    check({question, "[]\n"});
    listens.send(SIGINT);
    listens.finish();
  }
  Process watch(korvo({"watch", "Thermometer/Temperature", "--raises", "--once"}));
  EXPECT_TRUE(isAnswered(question, testing::HasSubstr("korvo-watch-")));
  check({{"call", "Thermometer", "measure", "21.5"}});
  EXPECT_THAT(watch.finish().out, HasSubstr("raised    Thermometer/Temperature  21.5"));
  EXPECT_TRUE(isAnswered(question, "[]\n"));
}

TEST(Broker, LoadsModulesAndEndsWhenItsServiceIsAskedTo) {
  Broker broker({"--log-level", "info"});
  const Row rows[] = {{{"load", module("greeter")}},
                      {{"call", "Greeter", "greet", "\"you\""}, "\"Hello, you\"\n"},
                      {{"call", "Broker", "stop"}}};
  for (const Row& row : rows) check(row);
  const auto result = broker->finish(10s);
  EXPECT_EQ(result.out, "Greeter leaves\n");
  EXPECT_EQ(result.status, 0);
}

TEST(Commands, NameAValueThatCannotCross) {
  const Broker broker;
  EXPECT_THAT(kit::runKorvo({"set", "Deep", nested(300)}).err, HasSubstr("nested more than 256 deep"));
  // A history has its values two lists deeper.
  kit::runKorvo({"raise", "Deep", nested(254)});
  EXPECT_EQ(kit::runKorvo({"get", "Deep"}).status, 0);
  EXPECT_THAT(kit::runKorvo({"history", "Deep"}).err, HasSubstr("nested more than 256 deep"));
}

TEST(Broker, ThatIsFrozenIsNamed) {
  Broker broker;
  broker->send(SIGSTOP);
  const auto result = kit::runKorvo({"get", "Foo"});
  broker->send(SIGCONT);
  EXPECT_THAT(result.err, AllOf(StartsWith("error: "), HasSubstr("broker korvo")));
  EXPECT_EQ(result.status, 1);
}

TEST(Top, PrintsSnapshotsWhereThereIsNoTerminal) {
  const Broker broker;
  Process top(korvo({"top", "Korvo"}));
  EXPECT_TRUE(top.waitFor("KorvoReady  MicroEvent"));
  top.send(SIGINT);
  const auto result = top.finish();
  EXPECT_THAT(result.out, testing::Not(HasSubstr("HXMemory/")));
  EXPECT_EQ(result.status, 0);
}

TEST(Top, FollowsSortsAndFiltersOnATerminalAndRestoresIt) {
  const Broker broker;
  kit::runKorvo({"set", "Apple", "1"});
  // What is run by script has a terminal.
  Process top({"/usr/bin/script", "-qfec", KORVO_PROGRAM " top", "/dev/null"}, {"TERM=xterm"});
  ASSERT_TRUE(top.waitFor("Apple"));
  kit::runKorvo({"set", "Pear", "2"});
  EXPECT_TRUE(top.waitFor("Pear"));
  top.write("/Pe\r");
  EXPECT_TRUE(top.waitFor("1 of 3 keys"));
  top.write(
      "\x1b"
      "r");
  EXPECT_TRUE(top.waitFor("by rate"));
  top.write("q");
  EXPECT_TRUE(top.waitFor("\x1b[?25h\x1b[?1049l"));
  EXPECT_EQ(top.finish().status, 0);
}

}  // namespace
