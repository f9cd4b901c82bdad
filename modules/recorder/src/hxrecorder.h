#pragma once

#include "blackbox.h"
#include "recorder.h"

#include <hxcommon/hxmodule.h>
#include <hxerror/mutex.h>
#include <libmw/signal.h>

#include <memory>
#include <string>

namespace HX {

/// Records the memory into files, and keeps its last moments for when something goes wrong.
///
/// One recording at a time, started by the setting `record` or by a call. `finished` tells of each file that is whole.
/// The setting `black-box` has the last moments kept, and written when one of the events of `when` is raised.
///
/// @par Threads  All methods are safe from any thread. Behind the mutex only the recorder's own is taken, which is a
/// leaf.
class HXRecorder : public HXModule {
 public:
  HXRecorder(const std::shared_ptr<HXBroker>& broker, const std::string& name);
  ~HXRecorder() override;

  void init() override;
  void exit() override;

  /// Begins to record.
  /// @param file  In the folder of the settings unless it has one; empty for a name of date and time.
  /// @return The file.
  /// @throws HXError when it records already, or the file cannot be made.
  std::string start(const std::string& file);
  /// Ends the recording, whose file is whole then.
  /// @return The last file; empty when nothing was recorded.
  std::string stopRecording();
  void pause();
  void resume();
  void split();
  /// Marks a moment in whatever is being recorded.
  void note(const std::string& text);
  /// Writes what the black box has.
  std::string saveBlackBox();
  /// {recording, begun: all states are told, paused, file, changes, bytes, gaps, missed, keys, failure, blackBox:
  /// {bytes, seconds, files}}.
  HXValue state();

  /// A file is whole: its path.
  mw::Signal<std::string> finished;

 private:
  void declareSettings();
  void bindMethods();
  recording::Feed feed();
  recording::TextMap about() const;
  recording::RecorderOptions recorderOptions();
  void startBlackBox();
  void tellFinished(const std::filesystem::path& path);
  std::filesystem::path pathOf(const std::string& file);
  std::shared_ptr<recording::Recorder> running(const char* method);

  Mutex mutex_;
  std::shared_ptr<recording::Recorder> recorder_ HX_GUARDED_BY(mutex_);
  bool isStarting_ HX_GUARDED_BY(mutex_) = false;
  std::unique_ptr<recording::BlackBox> blackBox_;  // From `init` to `exit`.
};

}  // namespace HX
