// The account commands: init, register, login, logout, languages.

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>

#include "cli.h"
#include "commands.h"
#include "host/environment.h"
#include "panelkit/panelkit.h"

namespace vistrel_cli {

using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

namespace {

constexpr char kLibraryConfigPath[] = "/mnt/ext1/system/config/vistrel_config.cfg";

// Makes the cached configuration look old, so that the next Init() fetches it once.
bool ExpireCachedConfiguration() {
  if (!vistrel_host::PrepareDeviceRoot()) return false;
  iconfig* config = OpenConfig(kLibraryConfigPath, nullptr);
  if (config == nullptr) return false;
  WriteInt(config, "switchboard_update_time", 0);
  CloseConfig(config);
  return true;
}

int ConfigurationAgeMinutes() {
  iconfig* config = OpenConfig(kLibraryConfigPath, nullptr);
  if (config == nullptr) return -1;
  const int fetched = ReadInt(config, "switchboard_update_time", 0);
  CloseConfigNoSave(config);
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int>((now.tv_sec - fetched) / 60);
}

// The session as the shop sees it now: renewed with the stored credentials when there are
// some, so that a session the shop forgot (a restarted shop) does not read as logged in.
std::string DescribeSession(StoreManager* store) {
  const std::string user = store->getLogin();
  if (!store->getPassword().empty()) {
    if (store->NewSession(nullptr) == 0) return "logged in as " + user;
    const norbel::utilities::TransferOutcome last = norbel::utilities::LastTransferOutcome();
    if (Unanswered(last)) {
      return "stored session of " + user + " (not renewed: " + last.method + " " + last.url + ": " +
             last.Describe() + ")";
    }
    return "the shop refused the stored credentials of " + user + " (run vistrel login)";
  }
  if (store->IsLoggedIn()) {
    return "stored session" + (user.empty() ? std::string() : " of " + user) +
           " (not checked: no stored password)";
  }
  return "not logged in";
}

// The password from --password-stdin, the command line (with a warning) or a prompt.
int ReadPassword(const Args& args, bool registering, std::string* password) {
  if (args.Has("--password-stdin")) {
    if (args.positional.size() > 1) return Usage("give the password on stdin or as an argument");
    if (!ReadLine(password) || password->empty()) {
      return Fail(kExitUsage, "no password on stdin");
    }
    return kExitOk;
  }
  if (args.positional.size() == 2) {
    Warn(
        "a password on the command line can be seen by other users and stays in the shell "
        "history; leave it out to be asked, or use --password-stdin");
    *password = args.positional[1];
    return kExitOk;
  }
  if (!isatty(STDIN_FILENO)) {
    return Usage("no password: run on a terminal to be asked, or use --password-stdin");
  }
  if (!PromptPassword("Password: ", password) || password->empty()) {
    return Fail(kExitUsage, "no password given");
  }
  if (registering) {
    std::string again;
    if (!PromptPassword("Password again: ", &again) || again != *password) {
      return Fail(kExitUsage, "the passwords differ");
    }
  }
  return kExitOk;
}

}  // namespace

int RunInit(const std::vector<std::string>& words) {
  Args args;
  std::string error;
  if (!ParseArgs(words, {}, {"--refresh"}, &args, &error)) return Usage(error);
  if (!args.positional.empty()) return Usage("init takes no arguments");
  if (args.Has("--refresh") && !ExpireCachedConfiguration()) {
    return Fail(kExitFailed, "cannot open the device configuration " +
                                 vistrel_host::ResolveDevicePath(kLibraryConfigPath));
  }
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  const auto& config = store->config();
  if (ConfigurationWasFetched()) {
    std::printf("configuration: fetched from %s\n", SwitchboardForMessages().c_str());
  } else {
    const int age = ConfigurationAgeMinutes();
    std::printf(
        "configuration: cached on the device, fetched %d min ago (fetched again after "
        "30 min, or now with vistrel init --refresh)\n",
        age);
  }
  std::printf("shop: %s (client %s)\n", config.clientName.c_str(), config.clientID.c_str());
  std::printf("web service: %s\n", config.clientShopWebserviceUrl.c_str());
  std::printf("catalogue: %s\n", config.clientOPDSCatalogUrl.c_str());
  std::printf("standby picture: %s\n", config.clientStandbyImage.c_str());
  std::printf("languages: %zu\n", store->languages().size());
  std::printf("session: %s\n", DescribeSession(store).c_str());
  std::printf("cart: %s\n", Count(store->cart().GetSize(), "book").c_str());
  std::printf("purchased: %s\n", Count(store->purchased().size(), "book").c_str());
  std::printf("device folder: %s\n", vistrel_host::DeviceRoot().c_str());
  return kExitOk;
}

int RunAccount(const std::vector<std::string>& words, bool registering) {
  const char* name = registering ? "register" : "login";
  Args args;
  std::string error;
  if (!ParseArgs(words, {}, {"--password-stdin"}, &args, &error)) return Usage(error);
  if (args.positional.empty() || args.positional.size() > 2) {
    return Usage(std::string(name) + " needs an e-mail address");
  }
  std::string password;
  if (const int problem = ReadPassword(args, registering, &password)) return problem;
  const std::string& email = args.positional[0];
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  const ServerApi::Result result =
      registering ? store->Register(email, password) : store->LogIn(email, password);
  if (result.code_ != ServerApi::kOk) {
    return ReportRefusal(registering ? "registration" : "login", result);
  }
  if (!store->IsLoggedIn()) return Fail(kExitFailed, std::string(name) + " gave no session");
  std::printf("%s as %s; %s purchased\n", registering ? "registered and logged in" : "logged in",
              email.c_str(), Count(store->purchased().size(), "book").c_str());
  return kExitOk;
}

int RunRegister(const std::vector<std::string>& words) { return RunAccount(words, true); }
int RunLogin(const std::vector<std::string>& words) { return RunAccount(words, false); }

int RunLogout(const std::vector<std::string>& words) {
  Args args;
  std::string error;
  if (!ParseArgs(words, {}, {"--forget"}, &args, &error)) return Usage(error);
  if (!args.positional.empty()) return Usage("logout takes no arguments");
  int code = 0;
  // Logging out needs no shop: the device's files are enough.
  StoreManager* store = StartStore(&code, Need::kDevice);
  if (store == nullptr) return code;
  if (args.Has("--forget")) {
    if (store->ForgetAccount() != 0) {
      return Fail(kExitFailed, "logged out, but the device configuration could not be saved");
    }
    std::printf(
        "logged out; the cart is empty, and the stored session, e-mail address and password "
        "are removed from the device\n");
    return kExitOk;
  }
  store->LogOut();
  std::printf(
      "logged out on the device; the cart is empty. The shop was not told, and the device "
      "keeps\nthe stored session and password, so the next command is logged in again "
      "(vistrel logout --forget removes them)\n");
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
