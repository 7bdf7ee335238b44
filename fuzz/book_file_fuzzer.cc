// The file-name helpers on any text: VerifyFilename (the first byte picks the limit and
// whether "#" is dropped), ParseToNameExtention and ExtentionByMime.
#include <cstddef>
#include <cstdint>
#include <string>

#include "vistrel_store/book_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  unsigned int max_chars = data[0] >> 1;
  bool drop_hash = (data[0] & 1) != 0;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  VerifyFilename(text.c_str(), max_chars, drop_hash);
  VerifyFilename(text.c_str(), 255, drop_hash);
  ParseToNameExtention(text);
  ExtentionByMime(text);
  return 0;
}
