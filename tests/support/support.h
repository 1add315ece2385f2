// Files, logs and time for tests.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/constants.h"

namespace kxtest
{

// A new empty folder below sysroot(); gone at the end of the program.
std::string new_folder(const std::string& name = "folder");

// Writes a file, making its folders. A time other than 0 is set before the file is closed, so that a watcher
// that hears of the close finds it.
void write_file(const std::string& path, const std::string& content, time_t mtime = 0);
std::string read_file(const std::string& path); // empty when it cannot be read
bool exists(const std::string& path);           // of the entry itself, links not followed
time_t mtime_of(const std::string& path);       // 0 when missing
std::vector<std::string>
tree_of(const std::string& folder); // relative paths, sorted, folders with a "/" behind

// A tree by relative path: "" for a folder, the MD5 of its content for a file.
using contents_t = std::map<std::string, std::string>;
contents_t contents_of(const std::string& folder); // throws when it changes under the reading
std::string md5_of(const std::string& text);

// What the function writes to the log at this verbosity, in standard-error mode with the escapes and places
// taken off: lines of the form "error: text".
std::string log_of(const std::function<void()>& run, int verbosity = 3);

// Everything the function writes to a descriptor (1 or 2), raw.
std::string output_of(int fd, const std::function<void()>& run);

// The records of an event log, a line each: the tag without "LOGMSG_AMAZONDRIVE_", and the items.
std::string events_in(const std::string& path);

// Links the account: writes the settings file with a sealed provisioning value and these lines behind it.
void write_settings(const std::string& lines = "AMAZONDRIVE_ACCESS_TOKEN=access\n"
                                               "AMAZONDRIVE_REFRESH_TOKEN=refresh\n",
                    const std::string& provision = "v=1&state=authorized");

// Asks every few milliseconds until the condition holds; false when it does not within the time, times
// KXTEST_SLOWNESS.
bool eventually(const std::function<bool()>& condition, double seconds = 10);

} // namespace kxtest
