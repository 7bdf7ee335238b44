#include "host/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

namespace vistrel_host {
namespace {

// The longest name a folder entry takes on the device's file systems.
constexpr size_t kMaxNameBytes = 255;
// Hex digits of a temporary's random part.
constexpr size_t kRandomDigits = 16;
// Names tried before giving up when every one is taken (by chance or by someone planting).
constexpr int kCreateAttempts = 16;

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// An open folder, closed when it goes out of scope.
class Folder {
 public:
  explicit Folder(const std::string& path)
      : fd_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
  ~Folder() {
    if (fd_ >= 0) close(fd_);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Everything a temporary's name holds before its random part.
std::string TemporaryPrefix(const std::string& name, const char* suffix) {
  std::string prefix = "." + name + ".";
  if (prefix.size() + kRandomDigits + std::strlen(suffix) <= kMaxNameBytes) return prefix;
  char hashed[32];
  std::snprintf(hashed, sizeof(hashed), ".tmp-%016zx.", std::hash<std::string>()(name));
  return hashed;
}

// Random hex digits from the kernel; should it fail, from the clock and a counter, which
// still differ per call (O_EXCL keeps even a guessed name from being written through).
std::string RandomDigits() {
  unsigned char bytes[kRandomDigits / 2];
  if (getrandom(bytes, sizeof(bytes), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(bytes))) {
    static std::atomic<uint64_t> counter{0};
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    uint64_t mix = static_cast<uint64_t>(now.tv_nsec) * 0x9e3779b97f4a7c15ull ^
                   static_cast<uint64_t>(getpid()) << 32 ^ counter.fetch_add(1);
    std::memcpy(bytes, &mix, sizeof(bytes));
  }
  static const char kHex[] = "0123456789abcdef";
  std::string digits;
  for (unsigned char b : bytes) {
    digits += kHex[b >> 4];
    digits += kHex[b & 15];
  }
  return digits;
}

bool IsTemporaryOf(const char* entry, const std::string& prefix, const char* suffix) {
  size_t length = std::strlen(entry);
  size_t suffix_length = std::strlen(suffix);
  if (length != prefix.size() + kRandomDigits + suffix_length) return false;
  if (std::strncmp(entry, prefix.c_str(), prefix.size()) != 0) return false;
  if (std::strcmp(entry + length - suffix_length, suffix) != 0) return false;
  for (size_t i = prefix.size(); i < prefix.size() + kRandomDigits; ++i) {
    if (!std::strchr("0123456789abcdef", entry[i])) return false;
  }
  return true;
}

int CreateTemporaryAt(int folder_fd, const std::string& name, const char* suffix, mode_t mode,
                      std::string* temp_name) {
  std::string prefix = TemporaryPrefix(name, suffix);
  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    std::string candidate = prefix + RandomDigits() + suffix;
    int fd = openat(folder_fd, candidate.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) return -1;
    // The lock marks the temporary as in use until its descriptor is closed. Creating a file
    // this process owns alone, it cannot be taken; should locking be unsupported, the
    // temporary simply looks stale to others once it is older than their save.
    flock(fd, LOCK_EX | LOCK_NB);
    *temp_name = candidate;
    return fd;
  }
  errno = EEXIST;
  return -1;
}

void RemoveStaleAt(int folder_fd, const std::string& name, const char* suffix) {
  int scan_fd = dup(folder_fd);
  if (scan_fd < 0) return;
  DIR* dir = fdopendir(scan_fd);
  if (!dir) {
    close(scan_fd);
    return;
  }
  std::string prefix = TemporaryPrefix(name, suffix);
  while (dirent* entry = readdir(dir)) {
    if (!IsTemporaryOf(entry->d_name, prefix, suffix)) continue;
    // Only regular files that nobody holds are ours to remove; a link planted under such a
    // name is not opened (and not removed).
    int fd = openat(folder_fd, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && flock(fd, LOCK_EX | LOCK_NB) == 0) {
      unlinkat(folder_fd, entry->d_name, 0);
    }
    close(fd);
  }
  closedir(dir);
}

}  // namespace

std::string TemporaryName(const std::string& name, const char* suffix) {
  std::string temp = "." + name + suffix;
  if (temp.size() <= kMaxNameBytes) return temp;
  char hashed[32];
  std::snprintf(hashed, sizeof(hashed), ".tmp-%016zx", std::hash<std::string>()(name));
  return hashed + std::string(suffix);
}

int CreateTemporary(const std::string& host_folder, const std::string& name, const char* suffix,
                    mode_t mode, std::string* temp_path) {
  Folder folder(host_folder);
  if (folder.fd() < 0 || name.empty()) return -1;
  std::string temp_name;
  int fd = CreateTemporaryAt(folder.fd(), name, suffix, mode, &temp_name);
  if (fd >= 0) *temp_path = host_folder + "/" + temp_name;
  return fd;
}

void RemoveStaleTemporaries(const std::string& host_folder, const std::string& name,
                            const char* suffix) {
  Folder folder(host_folder);
  if (folder.fd() >= 0) RemoveStaleAt(folder.fd(), name, suffix);
}

bool ReplaceFile(const std::string& host_path, const std::string& contents, mode_t mode) {
  static const char kSuffix[] = ".new";
  size_t slash = host_path.find_last_of('/');
  std::string name = slash == std::string::npos ? host_path : host_path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return false;
  // Every step works on the folder opened once, so the temporary, the rename and the flush
  // all happen in the same folder even if its path is changed meanwhile.
  Folder folder(FolderOf(host_path));
  if (folder.fd() < 0) return false;
  RemoveStaleAt(folder.fd(), name, kSuffix);

  std::string temp;
  int fd = CreateTemporaryAt(folder.fd(), name, kSuffix, mode, &temp);
  if (fd < 0) return false;
  // The mode given at creation is narrowed by the umask; the file gets exactly `mode`.
  bool ok =
      fchmod(fd, mode) == 0 && WriteAll(fd, contents.data(), contents.size()) && fsync(fd) == 0;
  // Renamed while still open (and locked), so no cleaner can take it for a stale one.
  ok = ok && renameat(folder.fd(), temp.c_str(), folder.fd(), name.c_str()) == 0;
  if (!ok) unlinkat(folder.fd(), temp.c_str(), 0);
  // close() after the rename cannot lose data any more: fsync has already succeeded.
  close(fd);
  if (!ok) return false;
  // The new file is in place; a failed folder flush only weakens durability, it does not
  // undo the save.
  fsync(folder.fd());
  return true;
}

ReadOutcome ReadRegularFile(const std::string& host_path, int64_t max_bytes,
                            std::string* contents) {
  contents->clear();
  // lstat first, so that nothing but a regular file is even opened (opening a device can
  // have effects of its own); the descriptor is checked again below, as the entry may be
  // swapped between the two.
  struct stat st;
  if (lstat(host_path.c_str(), &st) != 0) {
    return errno == ENOENT ? ReadOutcome::kMissing : ReadOutcome::kFailed;
  }
  if (!S_ISREG(st.st_mode)) return ReadOutcome::kNotRegular;
  int fd = open(host_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return ReadOutcome::kMissing;
    return errno == ELOOP ? ReadOutcome::kNotRegular : ReadOutcome::kFailed;
  }
  ReadOutcome outcome = ReadOutcome::kRead;
  if (fstat(fd, &st) != 0) {
    outcome = ReadOutcome::kFailed;
  } else if (!S_ISREG(st.st_mode)) {
    outcome = ReadOutcome::kNotRegular;
  } else if (static_cast<int64_t>(st.st_size) > max_bytes) {
    outcome = ReadOutcome::kTooLarge;
  }
  char buffer[16384];
  while (outcome == ReadOutcome::kRead) {
    ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) outcome = ReadOutcome::kFailed;
    if (n <= 0) break;
    // A file that grows while it is read is held to the same limit.
    if (static_cast<int64_t>(contents->size()) + n > max_bytes) {
      outcome = ReadOutcome::kTooLarge;
      break;
    }
    contents->append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  if (outcome != ReadOutcome::kRead) contents->clear();
  return outcome;
}

bool MakeFolders(const std::string& host_path) {
  for (size_t pos = host_path.find('/', 1); pos != std::string::npos;
       pos = host_path.find('/', pos + 1)) {
    std::string partial = host_path.substr(0, pos);
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  if (mkdir(host_path.c_str(), 0755) != 0 && errno != EEXIST) return false;
  struct stat st;
  return stat(host_path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool SyncFolder(const std::string& host_folder) {
  int fd = open(host_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  close(fd);
  return ok;
}

}  // namespace vistrel_host
