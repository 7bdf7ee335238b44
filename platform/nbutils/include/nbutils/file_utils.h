// Files of the device that must survive a crash or a power loss, and reading files of the
// device that someone else may have replaced by something else than a file.
#ifndef NBUTILS_FILE_UTILS_H_
#define NBUTILS_FILE_UTILS_H_

#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace norbel {
namespace utilities {

// Replaces the device file `device_path` by `content` atomically: readers see the old file or
// the new one, never a torn one. The file gets `mode`. False when it could not be written; the
// old file is then untouched. Nothing is ever written through an entry that was there before
// (a link planted at the file's name or at a temporary's name is not followed).
bool WriteFileAtomically(const std::string& device_path, const std::string& content,
                         mode_t mode = 0644);

// What ReadDeviceFile found.
enum class FileRead {
  kRead,        // the whole file is in *content
  kMissing,     // no file there
  kNotRegular,  // a link, folder, FIFO or device: refused at once, never waited on
  kTooLarge,    // more than the limit
  kFailed,      // a read error
};

// Reads the device file `device_path` whole when it is a regular file of at most `max_bytes`.
FileRead ReadDeviceFile(const std::string& device_path, int64_t max_bytes, std::string* content);

// Moves the device file `device_path` aside, for a person to look at, instead of deleting it:
// it is renamed to "<device_path>.<label>-<UTC time>" (label "unreadable", say; with "-2",
// "-3", ... when that name is taken: an existing file is never replaced) and the folder is
// synced. Stores the new device path in *kept_as. False when the file could not be moved.
bool KeepFileAside(const std::string& device_path, const std::string& label, std::string* kept_as);

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_FILE_UTILS_H_
