// Builds against the installed package and uses a little of every exported header.
#include <iostream>

#include "vistrel_store/vistrel_store.h"

int main() {
  norbel::vistrel::SwitchboardConfig config;
  config.clientName = "consumer";
  Json::Value json = config.ToJson();
  norbel::vistrel::ServerApi api;
  api.config_ = norbel::vistrel::SwitchboardConfig::Parse(json);
  if (api.config_.clientName != "consumer") return 1;
  std::cout << "consumer ok: " << json["clientName"].asString() << "\n";
  return 0;
}
