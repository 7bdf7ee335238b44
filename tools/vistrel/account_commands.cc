// The account commands: init, register, login, logout, languages.

#include <cstdio>

#include "cli.h"
#include "commands.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

int RunInit(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("init takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  // Init may have used the cached configuration: ask the configuration server again, and
  // start again on the answer (languages, session and purchases come from that shop).
  if (store->ConfigFromServer() != 0 || store->Init() != 0) {
    return Fail(kExitUnreachable,
                "shop unreachable: no configuration from " + SwitchboardForMessages());
  }
  const auto& config = store->config();
  std::printf("shop: %s (client %s)\n", config.clientName.c_str(), config.clientID.c_str());
  std::printf("web service: %s\n", config.clientShopWebserviceUrl.c_str());
  std::printf("catalogue: %s\n", config.clientOPDSCatalogUrl.c_str());
  std::printf("standby picture: %s\n", config.clientStandbyImage.c_str());
  std::printf("languages: %zu\n", store->languages().size());
  std::printf("session: %s\n", store->IsLoggedIn() ? ("logged in as " + store->getLogin()).c_str()
                                                   : "not logged in");
  std::printf("cart: %u books\n", store->cart().GetSize());
  std::printf("purchased: %zu books\n", store->purchased().size());
  return kExitOk;
}

int RunAccount(const std::vector<std::string>& words, bool registering) {
  const char* name = registering ? "register" : "login";
  if (words.size() != 2)
    return Usage(std::string(name) + " needs an e-mail address and a password");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  const ServerApi::Result result =
      registering ? store->Register(words[0], words[1]) : store->LogIn(words[0], words[1]);
  if (result.code_ != ServerApi::kOk) {
    return ReportRefusal(registering ? "registration" : "login", result);
  }
  if (!store->IsLoggedIn()) return Fail(kExitFailed, std::string(name) + " gave no session");
  std::printf("%s as %s; %zu purchased books\n",
              registering ? "registered and logged in" : "logged in", words[0].c_str(),
              store->purchased().size());
  return kExitOk;
}

int RunRegister(const std::vector<std::string>& words) { return RunAccount(words, true); }
int RunLogin(const std::vector<std::string>& words) { return RunAccount(words, false); }

int RunLogout(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("logout takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  store->LogOut();
  std::printf("logged out on the device; the cart is empty\n");
  return kExitOk;
}

int RunLanguages(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("languages takes no arguments");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  if (store->languages().empty()) return Fail(kExitFailed, "the shop listed no languages");
  for (const auto& language : store->languages()) {
    std::printf("%-4s %s\n", language.code.c_str(), language.name.c_str());
  }
  return kExitOk;
}

}  // namespace vistrel_cli
