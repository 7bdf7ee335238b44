#include "fuzz_support.h"

#include <json/reader.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "host/environment.h"

namespace vistrel_fuzz {
namespace {

std::string g_device_root;

void RemoveDevice() {
  std::error_code ignored;
  std::filesystem::remove_all(g_device_root, ignored);
}

}  // namespace

bool ParseJson(const uint8_t* data, size_t size, Json::Value* value) {
  const char* begin = reinterpret_cast<const char*>(data);
  try {
    Json::Reader().parse(begin, begin + size, *value, true);
  } catch (const Json::Exception&) {
    return false;
  }
  return true;
}

std::string UsePrivateDevice() {
  // Memory-backed when the host has it: a disk folder makes every file write cost a journal
  // commit, which slows the cart target thirtyfold.
  std::filesystem::path folder =
      access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
  std::string pattern = folder / "vistrel-fuzz-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  g_device_root = pattern;
  setenv("VISTREL_DEVICE_ROOT", g_device_root.c_str(), 1);
  setenv("VISTREL_LOG_FILE", "/dev/null", 1);
  if (!vistrel_host::PrepareDeviceRoot()) {
    std::fprintf(stderr, "cannot prepare the device root %s\n", g_device_root.c_str());
    std::abort();
  }
  std::atexit(RemoveDevice);
  return g_device_root;
}

}  // namespace vistrel_fuzz
