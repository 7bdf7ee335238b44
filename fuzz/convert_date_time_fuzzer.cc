// ConvertDateTime on any text, as the shop's order dates arrive. It never throws.
#include <cstddef>
#include <cstdint>
#include <string>

#include "vistrel_store/convert_date_time.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string in(reinterpret_cast<const char*>(data), size);
  std::string date, time, original_date;
  norbel::vistrel::ConvertDateTime(in, date, time, original_date);
  return 0;
}
