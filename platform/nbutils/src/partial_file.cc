#include "partial_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "host/files.h"

namespace norbel {
namespace utilities {
namespace {

constexpr char kDataSuffix[] = ".part";
constexpr char kInfoSuffix[] = ".part.info";
constexpr char kHashedPrefix[] = ".vistrel-";
constexpr char kRecordTemp[] = ".vistrel-record-";
constexpr char kMagic[] = "vistrel-partial 1";
// The longest name a folder entry takes on the device's file systems.
constexpr size_t kMaxNameBytes = 255;
// A record holds a link, a name and a validator; anything longer is not one of ours.
constexpr off_t kMaxInfoBytes = 16384;

bool EndsWith(const std::string& text, const char* suffix) {
  size_t n = std::strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// FNV-1a: the same on every build, 32- or 64-bit, unlike std::hash.
uint64_t StableHash(const std::string& text) {
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash;
}

// ".<name>" when the longer of the two names fits in a folder entry, else a fixed-length
// stand-in derived from the name.
std::string Stem(const std::string& name) {
  if (1 + name.size() + std::strlen(kInfoSuffix) <= kMaxNameBytes) return "." + name;
  char hashed[40];
  std::snprintf(hashed, sizeof(hashed), "%s%016llx", kHashedPrefix,
                static_cast<unsigned long long>(StableHash(name)));
  return hashed;
}

bool IsOurs(const struct stat& st) {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
}

bool WriteAll(int fd, const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// Reads a record; false when there is none of ours at `path`.
bool ReadInfo(const std::string& path, PartialInfo* info) {
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  std::string text;
  if (fstat(fd, &st) == 0 && IsOurs(st) && st.st_size <= kMaxInfoBytes) {
    text.resize(static_cast<size_t>(st.st_size));
    ssize_t n = read(fd, &text[0], text.size());
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  }
  close(fd);
  std::istringstream lines(text);
  std::string line;
  if (!std::getline(lines, line) || line != kMagic) return false;
  while (std::getline(lines, line)) {
    size_t space = line.find(' ');
    if (space == std::string::npos) continue;
    std::string key = line.substr(0, space);
    std::string value = line.substr(space + 1);
    if (key == "url") info->url = value;
    if (key == "name") info->name = value;
    if (key == "validator") info->validator = value;
    if (key == "total") info->total = std::strtoll(value.c_str(), nullptr, 10);
  }
  return !info->url.empty() && !info->validator.empty() && info->total >= 0;
}

bool OneLine(const std::string& text) { return text.find_first_of("\r\n") == std::string::npos; }

// The target name of a data entry, from its record; "" when the entry has no record of ours
// (then it is not a partial file this downloader made, and is left alone).
std::string TargetOfData(const std::string& folder, const std::string& entry) {
  std::string stem = entry.substr(0, entry.size() - std::strlen(kDataSuffix));
  PartialInfo info;
  if (ReadInfo(folder + "/" + stem + kInfoSuffix, &info)) return info.name;
  return std::string();
}

// Whether a running download (of any process) holds the data entry `entry`.
bool InUse(int dir_fd, const std::string& entry) {
  int fd = openat(dir_fd, entry.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  bool busy = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);  // also drops the lock if it was taken
  return busy;
}

}  // namespace

PartialFile::PartialFile(const std::string& folder, const std::string& name)
    : folder_(folder),
      name_(name),
      data_path_(folder + "/" + DataName(name)),
      info_path_(folder + "/" + InfoName(name)) {}

PartialFile::~PartialFile() {
  if (fd_ >= 0) close(fd_);
}

std::string PartialFile::DataName(const std::string& name) { return Stem(name) + kDataSuffix; }

std::string PartialFile::InfoName(const std::string& name) { return Stem(name) + kInfoSuffix; }

bool PartialFile::Open(const std::string& url, std::string* error) {
  int existing = open(data_path_.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (existing >= 0) {
    struct stat st;
    if (fstat(existing, &st) != 0 || !IsOurs(st)) {
      close(existing);
      existing = -1;
    } else if (flock(existing, LOCK_EX | LOCK_NB) != 0) {
      close(existing);
      *error = "another download is writing this file";
      return false;
    }
  }
  if (existing >= 0) {
    fd_ = existing;
    if (OpenExisting(url)) return true;
    close(fd_);
    fd_ = -1;
  }
  return CreateFresh(error);
}

// Continues the data in fd_ when its record matches.
bool PartialFile::OpenExisting(const std::string& url) {
  PartialInfo info;
  if (!ReadInfo(info_path_, &info) || info.url != url || info.name != name_) return false;
  off_t size = lseek(fd_, 0, SEEK_END);
  if (size <= 0 || (info.total > 0 && size >= info.total)) return false;
  int flags = fcntl(fd_, F_GETFL);
  if (flags < 0 || fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK) != 0) return false;
  resume_from_ = size;
  info_ = info;
  has_info_ = true;
  return true;
}

bool PartialFile::CreateFresh(std::string* error) {
  // Whatever is at these names (an older attempt, a link, a file of someone else) goes; the
  // new file is made only where nothing is.
  unlink(data_path_.c_str());
  unlink(info_path_.c_str());
  fd_ = open(data_path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    *error = std::string("cannot create the partial file: ") + std::strerror(errno);
    return false;
  }
  if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    *error = "another download is writing this file";
    close(fd_);
    fd_ = -1;
    return false;
  }
  resume_from_ = 0;
  info_ = PartialInfo();
  has_info_ = false;
  return true;
}

bool PartialFile::Restart() {
  unlink(info_path_.c_str());
  has_info_ = false;
  resume_from_ = 0;
  info_ = PartialInfo();
  return ftruncate(fd_, 0) == 0 && lseek(fd_, 0, SEEK_SET) == 0;
}

bool PartialFile::SaveInfo(const PartialInfo& info) {
  info_ = info;
  has_info_ = false;
  if (info.validator.empty() || !OneLine(info.url) || !OneLine(info.validator) ||
      !OneLine(info.name)) {
    has_info_ = false;
    return unlink(info_path_.c_str()) == 0 || errno == ENOENT;
  }
  std::ostringstream text;
  text << kMagic << "\nurl " << info.url << "\nname " << info.name << "\nvalidator "
       << info.validator << "\ntotal " << info.total << "\n";
  std::string temp = folder_ + "/" + kRecordTemp + "XXXXXX";
  int fd = mkostemp(&temp[0], O_CLOEXEC);  // O_CREAT|O_EXCL under a name nobody can predict
  if (fd < 0) return false;
  bool ok = WriteAll(fd, text.str()) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  ok = ok && rename(temp.c_str(), info_path_.c_str()) == 0;
  if (!ok) {
    unlink(temp.c_str());
    unlink(info_path_.c_str());
    return false;
  }
  vistrel_host::SyncFolder(folder_);
  has_info_ = true;
  return true;
}

bool PartialFile::Commit(const std::string& target, std::string* error) {
  bool ok = fchmod(fd_, 0644) == 0 && fsync(fd_) == 0;
  ok = close(fd_) == 0 && ok;
  fd_ = -1;
  if (ok) ok = rename(data_path_.c_str(), target.c_str()) == 0;
  if (!ok) {
    *error = std::string("cannot put the file in place: ") + std::strerror(errno);
    Discard();
    return false;
  }
  unlink(info_path_.c_str());
  vistrel_host::SyncFolder(folder_);
  return true;
}

bool PartialFile::Keep() {
  off_t size = fd_ >= 0 ? lseek(fd_, 0, SEEK_END) : 0;
  if (!has_info_ || size <= 0) {
    Discard();
    return false;
  }
  close(fd_);
  fd_ = -1;
  return true;
}

void PartialFile::Discard() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  unlink(data_path_.c_str());
  unlink(info_path_.c_str());
  has_info_ = false;
}

int PartialFile::RemoveStale(const std::string& folder,
                             const std::function<bool(const std::string&)>& wanted,
                             int64_t max_age_seconds) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return 0;
  int dir_fd = dirfd(dir);
  const time_t now = time(nullptr);
  int removed = 0;
  auto remove = [&](const std::string& entry) {
    if (unlinkat(dir_fd, entry.c_str(), 0) == 0) ++removed;
  };
  auto age = [&](const std::string& entry) -> int64_t {
    struct stat st;
    if (fstatat(dir_fd, entry.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    return static_cast<int64_t>(now) - static_cast<int64_t>(st.st_mtime);
  };
  std::vector<std::string> entries;
  while (const dirent* entry = readdir(dir)) entries.emplace_back(entry->d_name);
  for (const std::string& entry : entries) {
    if (entry.size() < 2 || entry[0] != '.') continue;
    if (StartsWith(entry, kRecordTemp)) {
      if (age(entry) > max_age_seconds) remove(entry);  // left by a process killed mid-save
    } else if (EndsWith(entry, kInfoSuffix)) {
      std::string data = entry.substr(0, entry.size() - std::strlen(".info"));
      PartialInfo info;
      if (age(data) < 0 && ReadInfo(folder + "/" + entry, &info)) remove(entry);
    } else if (EndsWith(entry, kDataSuffix)) {
      // Only partial files with a record of ours: anything else of that name is not ours.
      std::string name = TargetOfData(folder, entry);
      struct stat st;
      if (name.empty() || fstatat(dir_fd, entry.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          !IsOurs(st)) {
        continue;
      }
      if ((!wanted(name) || age(entry) > max_age_seconds) && !InUse(dir_fd, entry)) {
        std::string stem = entry.substr(0, entry.size() - std::strlen(kDataSuffix));
        remove(stem + kInfoSuffix);
        remove(entry);
      }
    }
  }
  closedir(dir);
  return removed;
}

}  // namespace utilities
}  // namespace norbel
