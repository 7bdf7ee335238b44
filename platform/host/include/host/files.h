// File helpers of the host stand-ins: whole-file replacement that survives a crash or power
// loss, and folder creation. Host paths only.
#ifndef HOST_FILES_H_
#define HOST_FILES_H_

#include <sys/types.h>

#include <string>

namespace vistrel_host {

// Writes `contents` to a temporary file in the folder of `host_path`, flushes it to the disk,
// renames it over `host_path` and flushes the folder: readers see the old file or the new one,
// never a torn one. The file gets `mode`. On failure the temporary is removed and the old file
// is left as it was. The temporary's name is fixed per file, so one left by a process killed
// mid-save is taken over by the next save instead of piling up.
bool ReplaceFile(const std::string& host_path, const std::string& contents, mode_t mode);

// A temporary's name beside a file called `name`: "." + name + `suffix`, or a short name
// derived from it when that would not fit in a folder entry.
std::string TemporaryName(const std::string& name, const char* suffix);

// Creates `host_path` and every missing parent folder. True when it is a folder afterwards.
bool MakeFolders(const std::string& host_path);

// Flushes a folder's entries (a rename in it) to the disk.
bool SyncFolder(const std::string& host_folder);

}  // namespace vistrel_host

#endif  // HOST_FILES_H_
