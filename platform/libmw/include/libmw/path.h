#pragma once

#include <hxerror/api.h>

#include <string>
#include <vector>

/// Look-up of data files in the places that the XDG Base Directory convention names.
namespace mw::path {

/// Finds a data file of an application. The first of these that holds it wins:
///
/// 1. `DIR/filename` for every DIR given to prependDataDir(), the latest first;
/// 2. `$XDG_DATA_HOME/application/filename` (`~/.local/share` when unset);
/// 3. `DIR/application/filename` for every DIR in `$XDG_DATA_DIRS`, in order (`/usr/local/share:/usr/share` when
///    unset).
///
/// Entries of the variables that are not absolute are ignored, as the convention demands.
///
/// @param application              One folder name.
/// @param filename                 Relative path below the folders above, `/` between its parts.
/// @param excludeUserWritablePath  Leaves out place 2, for files that a user must not be able to replace.
/// @return Path of a regular file or what a link to one names; empty when there is none, which is no error.
/// @throws std::invalid_argument naming the argument when `application` or `filename` is empty, absolute or has
///         a ".." part: a name that comes from outside must not lead out of the data folders.
/// @par Threads  Safe from any thread.
HX_API std::string findData(const std::string& application, const std::string& filename,
                            bool excludeUserWritablePath = false);

/// The folders that findData() searches for `application`, in its order, whether they exist or not.
///
/// @throws std::invalid_argument like findData().
HX_API std::vector<std::string> dataPaths(const std::string& application, bool excludeUserWritablePath = false);

/// Makes findData() look into `directory` itself (no application folder below it) before everything else.
///
/// @param directory  Made absolute against the current directory at the time of the call. Folders given later
///                   come first; a folder given again moves to the front.
/// @throws std::invalid_argument when it is empty.
/// @par Threads  Safe from any thread.
HX_API void prependDataDir(const std::string& directory);

}  // namespace mw::path
