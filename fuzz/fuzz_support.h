// Helpers shared by the fuzz targets.
#ifndef VISTREL_FUZZ_FUZZ_SUPPORT_H_
#define VISTREL_FUZZ_FUZZ_SUPPORT_H_

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vistrel_fuzz {

// Reads the input as the library's readers do (comments collected). False when the reader
// threw (input nested too deeply); a parse error otherwise leaves what the reader built.
bool ParseJson(const uint8_t* data, size_t size, Json::Value* value);

// Points the emulated device at a fresh private folder, with the device's standard folders
// made (in /dev/shm when it is writable), and removes it at exit. Device log lines go
// nowhere. Returns the folder.
std::string UsePrivateDevice();

}  // namespace vistrel_fuzz

#endif  // VISTREL_FUZZ_FUZZ_SUPPORT_H_
