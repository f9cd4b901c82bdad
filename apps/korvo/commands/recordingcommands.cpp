#include "arguments.h"
#include "base/output.h"
#include "base/target.h"
#include "commands.h"

#include <hxcommon/hxproxy.h>

#include <array>
#include <recording/entry.h>

namespace korvo {
namespace {

void note(Context& context, Arguments& arguments) {
  const std::string text = arguments.word("TEXT");
  arguments.end();
  context.target.memory().raiseEvent(std::string(HX::recording::kNoteKey), text);
}

void blackBox(Context& context, Arguments& arguments) {
  const std::string what = arguments.word("save");
  arguments.end();
  if (what != "save") throw InputError("write black-box save");
  const auto recorder = context.target.require("HXRecorder");
  context.output.line(recorder->call<std::string>("saveBlackBox"));
}

constexpr std::array kRecordingCommands{
    Command{"note", "TEXT", "Marks a moment in whatever is being recorded.",
            "Raises HXRecorder/Note with the text. Viewers show it in the log, and korvo at finds it: 'note:kick'.",
            "note 'kicked it here'", note},
    Command{"black-box", "save", "Has the black box of the broker written, and prints the file.",
            "korvo run --black-box keeps one; it is written by itself when one of its events is raised.",
            "black-box save", blackBox},
};

}  // namespace

std::span<const Command> recordingCommands() { return kRecordingCommands; }

}  // namespace korvo
