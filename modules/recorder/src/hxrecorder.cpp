#include "hxrecorder.h"

#include "recording/filename.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/units.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/log.h>

#include <array>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

const char* const kCategory = "hxrecorder";

std::vector<std::string> textsOf(const HXValue& list) {
  std::vector<std::string> texts;
  for (const HXValue& text : list.asList()) texts.push_back(text.asString());
  return texts;
}

/// "30s:10s"
/// @throws std::runtime_error for a text that is not like that.
std::pair<std::chrono::nanoseconds, std::chrono::nanoseconds> toWindow(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::string after = colon == std::string::npos ? "0s" : text.substr(colon + 1);
  return {toDuration(HXValue(text.substr(0, colon))), toDuration(HXValue(after))};
}

}  // namespace

HXRecorder::HXRecorder(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
  setModuleDescription(
      "HXRecorder records the memory into files, and keeps its last moments for when something goes wrong.");
  declareSettings();
  bindMethods();
}

HXRecorder::~HXRecorder() = default;

void HXRecorder::declareSettings() {
  addSetting(Setting::text("folder", "recordings", "Where files are written."));
  addSetting(Setting::flag("record", false, "Records from the start."));
  addSetting(Setting::texts("keys", {}, "What is recorded: keys, prefixes that end with /, and globs; none for all."));
  addSetting(Setting::texts("except", {}, "What is left out."));
  addSetting(Setting::duration("split", "1h", "Time after which another file begins."));
  addSetting(Setting::size("split-size", "1GiB", "Size after which another file begins."));
  addSetting(Setting::size("keep", "0B", "Size of all files beyond which the oldest ones go; 0B for none."));
  addSetting(Setting::size("min-free", "1GiB", "What is left free of the disk."));
  addSetting(Setting::text("compress", "zstd", "How files are compressed.").oneOf({"zstd", "lz4", "none"}));
  addSetting(Setting::text("black-box", "", "What is kept of the last moments: \"30s:10s\", time before and after."));
  addSetting(Setting::texts("when", {}, "Events whose raise has the black box written."));
  addSetting(Setting::size("black-box-size", "64MiB", "Memory that the black box may take.").between("1MiB", "16GiB"));
  addSetting(
      Setting::integer("black-box-files", 8, "How many of its files are left; 0 for all.").between(0, 1'000'000));
  addSetting(
      Setting::size("black-box-keep", "0B", "Size of all its files beyond which the oldest ones go; 0B for none."));
  addSetting(Setting::flag("black-box-at-end", false, "Writes the black box at a regular end too."));
  const std::string window = settings()["black-box"].asString();
  try {
    if (!window.empty()) toWindow(window);
  } catch (const std::runtime_error& error) {
    refuseSetting("black-box", fmt::format("{}; write 30s:10s", error.what()));
  }
}

void HXRecorder::bindMethods() {
  functionName("start", getName(), "Begins to record.");
  addParam("file", "In the folder of the settings unless it has one; empty for a name of date and time.");
  setReturn("file", "The file that is written.");
  bindMethod(this, &HXRecorder::start);
  functionName("stop", getName(), "Ends the recording, whose file is whole then.");
  setReturn("file", "The last file; empty when nothing was recorded.");
  bindMethod(this, &HXRecorder::stopRecording);
  functionName("pause", getName(), "Leaves out what happens until resume.");
  bindMethod(this, &HXRecorder::pause);
  functionName("resume", getName(), "Goes on; the file tells of the gap.");
  bindMethod(this, &HXRecorder::resume);
  functionName("split", getName(), "Begins another file.");
  bindMethod(this, &HXRecorder::split);
  functionName("note", getName(), "Marks a moment in whatever is being recorded.");
  addParam("text", "What is said of it.");
  bindMethod(this, &HXRecorder::note);
  functionName("saveBlackBox", getName(), "Writes what the black box has.");
  setReturn("file", "The file, which is whole.");
  bindMethod(this, &HXRecorder::saveBlackBox);
  functionName("state", getName(), "Says what is recorded where, and what was missed.");
  setReturn("state",
            "{recording, begun, paused, file, changes, bytes, gaps, missed, keys, failure, blackBox: {bytes, seconds, "
            "files}}");
  bindMethod(this, &HXRecorder::state);
  bindSignal("finished", finished);
}

recording::Feed HXRecorder::feed() {
  return {[this](journal::Filter filter, std::function<void(const journal::Change&)> onChange,
                 journal::FollowOptions options) {
            return follow(std::move(filter), std::move(onChange), std::move(options));
          },
          [this] { return retainedChanges(getParentBroker()).latest; }};
}

recording::TextMap HXRecorder::about() const {
  std::array<char, 256> machine{};
  ::gethostname(machine.data(), machine.size() - 1);
  return {{"broker", getParentBroker()->getName()}, {"machine", machine.data()}, {"program", getName()}};
}

recording::RecorderOptions HXRecorder::recorderOptions() {
  recording::RecorderOptions options;
  options.keys = textsOf(settings()["keys"]);
  options.except = textsOf(settings()["except"]);
  options.splitTime = toDuration(settings()["split"]);
  options.splitBytes = toBytes(settings()["split-size"]);
  options.keepBytes = toBytes(settings()["keep"]);
  options.minFree = toBytes(settings()["min-free"]);
  options.compression = recording::toCompression(settings()["compress"].asString());
  options.about = about();
  options.onFinished = [this](const std::filesystem::path& path) { tellFinished(path); };
  options.onFailure = [](const std::string& reason) {
    mw::log::error(kCategory, "record", fmt::format("the recording has ended: {}", reason));
  };
  return options;
}

void HXRecorder::tellFinished(const std::filesystem::path& path) {
  mw::log::info(kCategory, "record", fmt::format("{} is whole", path.string()));
  finished(path.string());
}

void HXRecorder::startBlackBox() {
  const std::string window = settings()["black-box"].asString();
  if (window.empty()) return;
  recording::BlackBoxOptions options;
  std::tie(options.before, options.after) = toWindow(window);
  options.folder = settings()["folder"].asString();
  options.when = textsOf(settings()["when"]);
  options.keys = textsOf(settings()["keys"]);
  options.bytes = toBytes(settings()["black-box-size"]);
  options.files = static_cast<std::size_t>(settings()["black-box-files"].toInt64());
  options.fileBytes = toBytes(settings()["black-box-keep"]);
  options.savesAtEnd = settings()["black-box-at-end"].asBool();
  options.about = about();
  options.onFinished = [this](const std::filesystem::path& path) { tellFinished(path); };
  options.onFailure = [](const std::string& reason) {
    mw::log::error(kCategory, "blackBox", fmt::format("the black box cannot be written: {}", reason));
  };
  blackBox_ = std::make_unique<recording::BlackBox>(std::move(options), feed());
}

void HXRecorder::init() {
  startBlackBox();
  if (settings()["record"].asBool()) start("");
}

void HXRecorder::exit() {
  try {
    stopRecording();
  } catch (const std::exception& error) {
    mw::log::error(kCategory, "exit", error.what());
  }
  blackBox_.reset();
  HXModule::exit();
}

std::filesystem::path HXRecorder::pathOf(const std::string& file) {
  std::filesystem::path path = file.empty() ? recording::defaultFileName() : file;
  if (path.has_parent_path()) return path;
  const std::filesystem::path folder = settings()["folder"].asString();
  std::error_code ignored;  // Told when the file cannot be made.
  std::filesystem::create_directories(folder, ignored);
  return folder / path;
}

std::string HXRecorder::start(const std::string& file) {
  std::shared_ptr<recording::Recorder> before;
  {
    const MutexLock lock(mutex_);
    const bool records = recorder_ && recorder_->state().failure.empty();
    if (isStarting_ || records) {
      throw HXError(
          getName(), "start",
          records ? fmt::format("it records into {}", recorder_->state().file.string()) : "it begins already");
    }
    isStarting_ = true;
    before = std::exchange(recorder_, nullptr);
  }
  // Without the lock: who is told of a file that is whole may ask what is recorded.
  std::shared_ptr<recording::Recorder> made;
  std::string reason;
  auto options = recorderOptions();
  const std::filesystem::path path = options.file = pathOf(file);
  try {
    before.reset();
    made = std::make_shared<recording::Recorder>(std::move(options), feed());
  } catch (const std::exception& error) {
    reason = error.what();
  }
  const MutexLock lock(mutex_);
  isStarting_ = false;
  if (!made) throw HXError(getName(), "start", reason);
  recorder_ = std::move(made);
  return path.string();
}

std::string HXRecorder::stopRecording() {
  std::shared_ptr<recording::Recorder> recorder;
  {
    const MutexLock lock(mutex_);
    recorder = std::exchange(recorder_, nullptr);
  }
  if (!recorder) return {};
  try {
    recorder->stop();
  } catch (const std::exception& error) {
    throw HXError(getName(), "stop", error.what());
  }
  return recorder->state().file.string();
}

std::shared_ptr<recording::Recorder> HXRecorder::running(const char* method) {
  const MutexLock lock(mutex_);
  if (!recorder_) throw HXError(getName(), method, "nothing is being recorded");
  return recorder_;
}

void HXRecorder::pause() { running("pause")->pause(); }
void HXRecorder::resume() { running("resume")->resume(); }
void HXRecorder::split() { running("split")->split(); }

void HXRecorder::note(const std::string& text) { memory().raiseEvent(std::string(recording::kNoteKey), text); }

std::string HXRecorder::saveBlackBox() {
  if (!blackBox_) throw HXError(getName(), "saveBlackBox", "there is no black box: the setting black-box makes one");
  try {
    return blackBox_->save().string();
  } catch (const std::runtime_error& error) {
    throw HXError(getName(), "saveBlackBox", error.what());
  }
}

HXValue HXRecorder::state() {
  HXValue::Map all{{"recording", false}};
  const auto number = [](std::uint64_t count) { return static_cast<std::int64_t>(count); };
  {
    const MutexLock lock(mutex_);
    if (recorder_) {
      const auto state = recorder_->state();
      all = {{"recording", state.failure.empty()}, {"begun", state.hasBegun},
             {"paused", state.isPaused},           {"file", state.file.string()},
             {"changes", number(state.changes)},   {"bytes", number(state.bytes)},
             {"gaps", number(state.gaps)},         {"missed", number(state.missed)},
             {"keys", number(state.keys)},         {"failure", state.failure}};
    }
  }
  if (blackBox_) {
    const auto state = blackBox_->state();
    all.emplace(
        "blackBox",
        HXValue::map({{"bytes", number(state.bytes)}, {"seconds", state.seconds}, {"files", number(state.files)}}));
  }
  return all;
}

}  // namespace HX
