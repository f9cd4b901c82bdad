#pragma once

#include "hosting.h"
#include "line/verbs.h"
#include "robot/robotfile.h"

#include <map>
#include <string>
#include <vector>

namespace korvo {

class Problems;

/// Options as words of a command line, by their names: "--data-dir" and {"--data-dir=/a", "--data-dir=/b"}.
using OptionWords = std::map<std::string, std::vector<std::string>, std::less<>>;

/// A file, and its options as those of `korvo run`.
struct Robot {
  RobotFile file;
  OptionWords words;
};

/// Reads a file. In its options texts like "200ms" and "1GiB" become the seconds and bytes that an option counts in,
/// and paths are taken from the folder of the file.
///
/// @throws HX::SettingsError with all that is wrong.
/// @throws std::runtime_error when the file cannot be read.
Robot readRobot(const std::string& path);
/// The same, and goes on with what is right.
/// @param problems  Is told what is wrong.
/// @throws HX::SettingsError for an error of syntax.
Robot readRobot(const std::string& path, Problems& problems);

/// @throws HX::SettingsError when the file maps signals, and there is no memory to raise them.
void requireMemoryForMaps(const RobotFile& file);

/// Says what somebody may have meant with a word in the place of the file that is no file to run: an option without its
/// dashes, a command, a module library, a file of another name.
///
/// @param options  Of the command.
/// @throws InputError  Unless there is a file of that name which may be one to run.
void requireRobotFile(const std::string& word, const CLI::App& options);

/// Puts the options of a file behind those of the command line, which win: an option that takes one value and is given
/// there is left out, and so is one that cannot stand beside a given one; what may be repeated is added.
///
/// @param options  Of the command; what it does not have is left out.
void addOptionWords(const OptionWords& words, const CLI::App& options, GivenWords& given);

/// Reads the file that a command which hosts modules was given by --settings, and adds its options that the command
/// has. The broker's name there is the broker to join.
/// @return The file; an empty one when none was given.
/// @throws As `readRobot`.
RobotFile readSettingsFile(const CLI::App& options, GivenWords& given);

/// Has the modules of the file loaded before those of the command line, each once, and all of them find their settings.
/// A module of the command line that the file names is the file's.
/// @param all  False when only the modules of the command line are wanted.
void takeModules(const RobotFile& file, bool all, HostingOptions& options);

/// Puts what `options.sets` says over the settings of the file.
/// @param loaded  The libraries that the options load.
/// @throws InputError for a word that sets nothing, and for a module that is not loaded.
void takeSets(const RobotFile& file, const std::vector<std::string>& loaded, HostingOptions& options);

}  // namespace korvo
