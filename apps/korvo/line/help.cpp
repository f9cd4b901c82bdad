#include "help.h"

#include "verbs.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace korvo {
namespace {

const char* const kPurpose = "A shared memory of named values and events for the modules of a robot.";

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    lines.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string optionText(const Verb& verb) { return CLI::Formatter().make_groups(optionsOf(verb).get(), {}); }

// --- Manual pages ---

/// Text that the formatter of manual pages takes as it is.
std::string escaped(std::string_view text) {
  std::string safe;
  if (text.starts_with('.') || text.starts_with('\'')) safe += "\\&";
  for (const char c : text) {
    switch (c) {
      case '\\':
        safe += "\\e";
        break;
      case '-':
        safe += "\\-";
        break;
      case '\'':
        safe += "\\(aq";
        break;
      case '`':
        safe += "\\(ga";
        break;
      case '^':
        safe += "\\(ha";
        break;
      case '~':
        safe += "\\(ti";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

/// Lines as they stand, for examples and tables.
std::string verbatim(std::string_view text, std::string_view prefix = {}) {
  std::string page = ".RS 4\n.nf\n";
  for (const auto line : linesOf(text)) page += escaped(fmt::format("{}{}", prefix, line)) + "\n";
  return page + ".fi\n.RE\n";
}

/// Flowing text, with lines that begin with a blank as they stand.
std::string paragraphs(std::string_view text) {
  std::string page;
  for (const auto line : linesOf(text)) {
    const bool stands = line.starts_with(' ');
    page +=
        line.empty() ? ".PP\n" : fmt::format("{}{}\n{}", stands ? ".br\n" : "", escaped(line), stands ? ".br\n" : "");
  }
  return page;
}

std::string manualOptions(const Verb& verb) {
  const auto app = optionsOf(verb);
  std::string page;
  for (const CLI::Option* option : app->get_options()) {
    const std::string value = option->get_items_expected_max() > 0 ? " " + option->get_type_name() : "";
    const std::string usual = option->get_default_str();
    page += fmt::format(".TP\n.B {}\n{}{}\n", escaped(option->get_name(false, true) + value),
                        escaped(option->get_description()),
                        usual.empty() ? "" : escaped(fmt::format("; by default {}", usual)));
  }
  return page;
}

/// What the environment changes, for the verbs that have an option; empty for all.
struct Variable {
  std::string_view name;
  std::string_view summary;
  std::string_view option;
};
constexpr Variable kEnvironment[] = {
    {"KORVO_BROKER", "The broker to ask or to join where --broker names none.", "--broker"},
    {"KORVO_MODULE_PATH",
     "Folders, separated by colons, in which modules are looked for by name before the installed ones.", "--module"},
    {"XDG_RUNTIME_DIR",
     "The folder korvo in it has the sockets of the brokers; without it, the folder korvo-UID in TMPDIR or /tmp.", ""},
    {"XDG_DATA_HOME, XDG_DATA_DIRS", "Where data files are looked for, the map of signals to events among them.",
     "--data-dir"},
    {"XDG_STATE_HOME",
     "The folder korvo in it has the history of the console and the values that are kept; by default ~/.local/state.",
     "--console"},
    {"TERM", "Where it is missing, empty or dumb, the live view is without colours.", "--live"},
    {"NO_COLOR", "Where it is set and not empty, the live view is without colours.", "--live"},
};

/// @param verb  Null for what any verb goes by.
std::string manualEnvironment(const Verb* verb) {
  const auto options = verb ? optionNames(*optionsOf(*verb)) : std::vector<std::string>();
  std::string page = ".SH ENVIRONMENT\n";
  for (const auto& [name, summary, option] : kEnvironment) {
    const bool isLive = option == "--live" && verb && verb->name == "top";
    if (verb && !option.empty() && std::ranges::count(options, option) == 0 && !isLive) continue;
    page += fmt::format(".TP\n.B {}\n{}\n", escaped(name), escaped(summary));
  }
  return page;
}

std::string manualHead(std::string_view name, std::string_view summary) {
  if (summary.ends_with('.')) summary.remove_suffix(1);
  std::string title(name);
  std::ranges::transform(title, title.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return fmt::format(".TH {} 1 \"\" \"korvo " KORVO_VERSION "\" \"Korvo\"\n.SH NAME\n{} \\- {}\n", escaped(title),
                     escaped(name), escaped(summary));
}

std::string manualVerb(const Verb& verb) {
  return fmt::format(".SS korvo {}\n{}\n.PP\n{}{}.PP\nExample:\n{}", escaped(synopsis(verb)), escaped(verb.summary),
                     paragraphs(verb.details), manualOptions(verb), verbatim(verb.examples, "korvo "));
}

std::string manualOfAll() {
  std::string page = manualHead("korvo", kPurpose);
  page += ".SH SYNOPSIS\n.B korvo\n.I COMMAND\n[\\fIOPTION\\fR...] [\\fIARGUMENT\\fR...]\n.SH DESCRIPTION\n";
  page += "One command hosts a broker, the others ask a running one. Options may stand anywhere after the command; a\n";
  page += "word \\-\\- ends them. Keys and names are taken as they are; JSON is one argument, so quote it.\n";
  std::string_view group;
  for (const Verb& verb : verbs()) {
    if (verb.group != group) page += fmt::format(".SH {}\n", escaped(group = verb.group));
    page += manualVerb(verb);
  }
  page += ".SH EXIT STATUS\n" + verbatim(kStatusesOfAsking) +
          ".PP\nCommands that ask no broker, and some others, have fewer\n";
  page += "or more; their help lists them.\n";
  page += manualEnvironment(nullptr);
  return page + ".SH FILES\n.TP\n.I $XDG_RUNTIME_DIR/korvo\nThe sockets of the running brokers of this user.\n";
}

std::string manualOfOne(const Verb& verb) {
  std::string page = manualHead(fmt::format("korvo-{}", verb.name), verb.summary);
  page +=
      fmt::format(".SH SYNOPSIS\n.B korvo {}\n[\\fIOPTION\\fR...] {}\n", escaped(verb.name), escaped(verb.arguments));
  page += fmt::format(".SH DESCRIPTION\n{}\n.PP\n{}", escaped(verb.summary), paragraphs(verb.details));
  page += ".SH OPTIONS\n" + manualOptions(verb);
  page += ".SH EXIT STATUS\n" + verbatim(verb.statuses);
  page += manualEnvironment(&verb);
  page += ".SH EXAMPLES\n" + verbatim(verb.examples, "korvo ");
  return page + ".SH SEE ALSO\n.BR korvo (1)\n";
}

}  // namespace

std::string synopsis(const Verb& verb) {
  return fmt::format("{}{}{}", verb.name, verb.arguments.empty() ? "" : " ", verb.arguments);
}

std::string helpOnAll() {
  std::string text = fmt::format("{}\n\nUsage: korvo COMMAND [OPTION...] [ARGUMENT...]\n", kPurpose);
  std::string_view group;
  for (const Verb& verb : verbs()) {
    if (verb.group != group) text += fmt::format("\n{}:\n", group = verb.group);
    text += fmt::format("  {:<34}{}\n", synopsis(verb), verb.summary);
  }
  text += "\nkorvo COMMAND --help tells more of one; korvo --version prints the version.\n";
  text += "\nExamples:\n";
  text += "  korvo run --module ./libarm.so           a broker with its memory and a module, until Ctrl-C\n";
  text += "  korvo set Arm/Speed 0.5                  in another terminal; then: korvo get Arm/Speed\n";
  return text + "  korvo watch Door                         prints what is raised, as it happens\n";
}

std::string helpOn(const Verb& verb) {
  std::string text = fmt::format("Usage: korvo {} [OPTION...]{}{}\n\n{}\n", verb.name,
                                 verb.arguments.empty() ? "" : " ", verb.arguments, verb.summary);
  if (!verb.details.empty()) text += fmt::format("\n{}\n", verb.details);
  text += optionText(verb);
  const auto examples = linesOf(verb.examples);
  text += examples.size() == 1 ? "\nExample:\n" : "\nExamples:\n";
  for (const auto line : examples) text += fmt::format("  korvo {}\n", line);
  text += "\nExit status:\n";
  for (const auto line : linesOf(verb.statuses)) text += fmt::format("  {}\n", line);
  return text;
}

std::string manualPage(const Verb* verb) { return verb ? manualOfOne(*verb) : manualOfAll(); }

}  // namespace korvo
