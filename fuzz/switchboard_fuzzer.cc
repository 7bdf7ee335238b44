// SwitchboardConfig::Parse on any JSON text, the configuration server's answer and the cached
// configuration file. Parse never throws.
#include <json/value.h>

#include "fuzz_support.h"
#include "vistrel_store/switchboard_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value json;
  if (!vistrel_fuzz::ParseJson(data, size, &json)) return 0;
  norbel::vistrel::SwitchboardConfig config = norbel::vistrel::SwitchboardConfig::Parse(json);
  config.ToJson();
  return 0;
}
