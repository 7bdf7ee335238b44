#include "host/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>

namespace vistrel_host {
namespace {

// The longest name a folder entry takes on the device's file systems.
constexpr size_t kMaxNameBytes = 255;

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

}  // namespace

std::string TemporaryName(const std::string& name, const char* suffix) {
  std::string temp = "." + name + suffix;
  if (temp.size() <= kMaxNameBytes) return temp;
  char hashed[32];
  std::snprintf(hashed, sizeof(hashed), ".tmp-%016zx", std::hash<std::string>()(name));
  return hashed + std::string(suffix);
}

bool ReplaceFile(const std::string& host_path, const std::string& contents, mode_t mode) {
  std::string folder = FolderOf(host_path);
  std::string name = host_path.substr(host_path.find_last_of('/') + 1);
  if (name.empty()) return false;
  std::string temp = folder + "/" + TemporaryName(name, ".new");
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool ok =
      fchmod(fd, mode) == 0 && WriteAll(fd, contents.data(), contents.size()) && fsync(fd) == 0;
  ok = (close(fd) == 0) && ok;
  if (ok) ok = rename(temp.c_str(), host_path.c_str()) == 0;
  if (!ok) {
    unlink(temp.c_str());
    return false;
  }
  // The new file is in place; a failed folder flush only weakens durability, it does not
  // undo the save.
  SyncFolder(folder);
  return true;
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
