// The shop's XML language list through the language parser, as GetLanguages reads it.
#include <cstddef>
#include <cstdint>

#include "language_parser.h"
#include "nbutils/expat_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LanguageParser handler;
  norbel::utilities::ExpatParser parser(&handler);
  parser.init("utf-8");
  parser.parse(size == 0 ? nullptr : reinterpret_cast<const char*>(data),
               static_cast<unsigned int>(size));
  handler.TakeLanguages();
  return 0;
}
