// File helpers of the host stand-ins: whole-file replacement that survives a crash or power
// loss, reading that cannot be blocked or misled by what was planted at a path, and folder
// creation. Host paths only.
//
// The world is hostile: a file's folder may hold symbolic links, FIFOs or devices that someone
// else put at the names these helpers use. So no write ever goes through a folder entry that
// existed before: temporaries are created exclusively under names nobody can predict, and
// final names are only ever replaced by rename, never opened for writing.
#ifndef HOST_FILES_H_
#define HOST_FILES_H_

#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace vistrel_host {

// Writes `contents` to a new temporary file in the folder of `host_path`, flushes it to the
// disk, renames it over `host_path` and flushes the folder: readers see the old file or the
// new one, never a torn one. The file gets `mode`. On failure the temporary is removed and the
// old file is left as it was. Temporaries that a killed process left beside the file are
// removed by the next save.
bool ReplaceFile(const std::string& host_path, const std::string& contents, mode_t mode);

// Creates a new, empty file in `host_folder` under a name nobody can predict ("." + `name` +
// "." + random hex + `suffix`), exclusively and without following links, with `mode`, and
// returns its descriptor (-1 on failure) and its path in *temp_path. The descriptor holds a
// lock that tells RemoveStaleTemporaries the file is in use; closing it releases the lock.
int CreateTemporary(const std::string& host_folder, const std::string& name, const char* suffix,
                    mode_t mode, std::string* temp_path);

// Removes the temporaries that CreateTemporary made for `name` and `suffix` in `host_folder`
// whose owner is gone (killed mid-save). Temporaries still open elsewhere stay.
void RemoveStaleTemporaries(const std::string& host_folder, const std::string& name,
                            const char* suffix);

// A temporary's name beside a file called `name`: "." + name + `suffix`, or a short name
// derived from it when that would not fit in a folder entry.
std::string TemporaryName(const std::string& name, const char* suffix);

// What ReadRegularFile found.
enum class ReadOutcome {
  kRead,        // *contents holds the whole file
  kMissing,     // nothing at the path
  kNotRegular,  // a link, folder, FIFO, device or socket: refused without waiting
  kTooLarge,    // larger than the limit
  kFailed,      // an error while reading
};

// Reads the regular file at `host_path` whole, if it holds at most `max_bytes`. The path is
// opened without following a link and without blocking, and checked to be a regular file
// before anything is read, so a FIFO planted there cannot stall the caller.
ReadOutcome ReadRegularFile(const std::string& host_path, int64_t max_bytes, std::string* contents);

// Creates `host_path` and every missing parent folder. True when it is a folder afterwards.
bool MakeFolders(const std::string& host_path);

// Flushes a folder's entries (a rename in it) to the disk.
bool SyncFolder(const std::string& host_folder);

}  // namespace vistrel_host

#endif  // HOST_FILES_H_
