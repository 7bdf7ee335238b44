#include "vistrel_store/switchboard_config.h"

#include <map>

#include "nbutils/serialization_utils.h"

namespace norbel {
namespace vistrel {
namespace {

// JSON key to member; walked in key order, not member order.
const std::map<std::string, std::string SwitchboardConfig::*> s_switchboard_map = {
    {"clientID", &SwitchboardConfig::clientID},
    {"clientName", &SwitchboardConfig::clientName},
    {"clientAddress", &SwitchboardConfig::clientAddress},
    {"clientOPDSCatalogUrl", &SwitchboardConfig::clientOPDSCatalogUrl},
    {"clientShopWebserviceUrl", &SwitchboardConfig::clientShopWebserviceUrl},
    {"clientImprint", &SwitchboardConfig::clientImprint},
    {"clientTaC", &SwitchboardConfig::clientTaC},
    {"clientPaymentInfo", &SwitchboardConfig::clientPaymentInfo},
    {"clientInfo", &SwitchboardConfig::clientInfo},
    {"clientHelp", &SwitchboardConfig::clientHelp},
    {"clientStandbyImage", &SwitchboardConfig::clientStandbyImage},
    {"clientSalesPermission", &SwitchboardConfig::clientSalesPermission},
    {"clientPrivacyPolicy", &SwitchboardConfig::clientPrivacyPolicy},
    {"clientRevocation", &SwitchboardConfig::clientRevocation},
};

// Texts, booleans and null as the JSON library writes them; signed integers as decimal
// digits; unsigned integers, reals, arrays and objects as "".
std::string ValueText(const Json::Value& value) {
  switch (value.type()) {
    case Json::stringValue:
    case Json::booleanValue:
    case Json::nullValue:
      return value.asString();
    case Json::intValue:
      return std::to_string(value.asInt64());
    default:
      return std::string();
  }
}

}  // namespace

SwitchboardConfig SwitchboardConfig::Parse(const Json::Value& json) {
  SwitchboardConfig config;
  if (!json.isObject()) return config;  // a null or other value has no keys to read
  for (const auto& [key, member] : s_switchboard_map) {
    std::string text = ValueText(json[key]);
    utilities::SerializationUtils::trim(text);
    config.*member = std::move(text);
  }
  return config;
}

Json::Value SwitchboardConfig::ToJson() const {
  Json::Value json;
  for (const auto& [key, member] : s_switchboard_map) json[key] = Json::Value(this->*member);
  return json;
}

}  // namespace vistrel
}  // namespace norbel
