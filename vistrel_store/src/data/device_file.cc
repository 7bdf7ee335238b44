#include "device_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "nbutils/device_environment.h"

namespace norbel {
namespace vistrel {
namespace {

bool WriteAll(int fd, const std::string& content) {
  const char* data = content.data();
  size_t left = content.size();
  while (left > 0) {
    ssize_t n = write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

void SyncFolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

}  // namespace

bool WriteDeviceFileAtomically(const std::string& device_path, const std::string& content) {
  std::string path = utilities::DevicePath(device_path);
  std::string pattern = path + ".XXXXXX";
  std::vector<char> temp(pattern.begin(), pattern.end());
  temp.push_back('\0');
  int fd = mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, content) && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (!ok || std::rename(temp.data(), path.c_str()) != 0) {
    unlink(temp.data());
    return false;
  }
  SyncFolderOf(path);
  return true;
}

}  // namespace vistrel
}  // namespace norbel
