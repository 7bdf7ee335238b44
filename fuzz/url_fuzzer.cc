// Url and Url::ParseQuery on the addresses the browser reports. The input is an address,
// optionally followed by a newline and a Location to resolve against it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "nbutils/url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  size_t newline = input.find('\n');
  std::string address = input.substr(0, newline);
  norbel::utilities::Url url(address);
  if (url.IsValid()) norbel::utilities::Url::ParseQuery(url.query());
  if (newline != std::string::npos) url.Resolve(input.substr(newline + 1));
  norbel::utilities::Url::ParseQuery(input);
  return 0;
}
