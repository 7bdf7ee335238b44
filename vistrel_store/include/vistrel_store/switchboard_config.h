#ifndef VISTREL_STORE_SWITCHBOARD_CONFIG_H_
#define VISTREL_STORE_SWITCHBOARD_CONFIG_H_

#include <json/value.h>

#include <string>

#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// The shop configuration that the configuration server gives this device: fourteen texts,
// each under a JSON key equal to its member's name. The library itself uses clientID,
// clientName, clientShopWebserviceUrl (the base of every shop call) and clientStandbyImage;
// the rest is for the caller to show.
struct VISTREL_STORE_EXPORT SwitchboardConfig {
  std::string clientID;
  std::string clientName;
  std::string clientAddress;
  std::string clientOPDSCatalogUrl;
  std::string clientShopWebserviceUrl;
  std::string clientImprint;
  std::string clientTaC;
  std::string clientPaymentInfo;
  std::string clientInfo;
  std::string clientHelp;
  std::string clientStandbyImage;
  std::string clientSalesPermission;
  std::string clientPrivacyPolicy;
  std::string clientRevocation;

  // Reads the fourteen keys; never fails. Texts, booleans and null are taken as text, signed
  // integers as their decimal digits, anything else as ""; every value is trimmed.
  static SwitchboardConfig Parse(const Json::Value& json);
  // An object with all fourteen keys and text values.
  Json::Value ToJson() const;
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SWITCHBOARD_CONFIG_H_
