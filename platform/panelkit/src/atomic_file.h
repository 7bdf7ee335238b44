// Whole-file replacement that survives a crash or power loss: readers see the old file or
// the new one, never a torn one. Host paths only; used by the configuration and bitmap
// writers.
#ifndef PANELKIT_SRC_ATOMIC_FILE_H_
#define PANELKIT_SRC_ATOMIC_FILE_H_

#include <sys/types.h>

#include <string>

namespace panelkit_internal {

// Writes `contents` to a temporary file in the folder of `host_path`, flushes it to the disk,
// renames it over `host_path` and flushes the folder. The file gets `mode`. On failure the
// temporary is removed and the old file is left as it was.
bool ReplaceFile(const std::string& host_path, const std::string& contents, mode_t mode);

// Creates `host_path` and every missing parent folder. True when it is a folder afterwards.
bool MakeFolders(const std::string& host_path);

}  // namespace panelkit_internal

#endif  // PANELKIT_SRC_ATOMIC_FILE_H_
