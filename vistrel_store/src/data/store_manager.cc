#include "vistrel_store/store_manager.h"

#include <json/reader.h>
#include <json/writer.h>
#include <sys/time.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>

#include "check_log.h"
#include "nbutils/book_store_auth_configs.h"
#include "nbutils/device_environment.h"
#include "nbutils/file_utils.h"

namespace norbel {
namespace vistrel {
namespace {

constexpr char kConfigPath[] = "/mnt/ext1/system/config/vistrel_config.cfg";
constexpr char kSwitchboardCachePath[] = "/mnt/ext1/system/config/switchboard.json";
constexpr char kDownloadFolder[] = "/mnt/ext1/Downloads";
constexpr char kStandbyFolder[] = "/tmp";
constexpr char kStandbyName[] = "logo_from_vistrel.bmp";
constexpr char kStandbyPath[] = "/tmp/logo_from_vistrel.bmp";
// The standby picture's download blocks the caller's start-up: bounded like a shop call, and
// in size far beyond any screen's picture.
constexpr int64_t kStandbyMaxBytes = 16 << 20;
constexpr int64_t kStandbyMaxMilliseconds = 30000;

// A fetched configuration stays fresh for this many seconds.
constexpr uint32_t kSwitchboardMaxAge = 1800;

int NowSeconds() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int>(now.tv_sec);
}

// An open device configuration file; closed without saving unless closed explicitly.
class ConfigHandle {
 public:
  ConfigHandle() : config_(OpenConfig(kConfigPath, nullptr)) {}
  ~ConfigHandle() {
    if (config_) CloseConfigNoSave(config_);
  }
  ConfigHandle(const ConfigHandle&) = delete;
  ConfigHandle& operator=(const ConfigHandle&) = delete;

  iconfig* get() const { return config_; }
  void Close() {
    CloseConfig(config_);
    config_ = nullptr;
  }
  // Leaves the handle open for good (see KeepOpen).
  iconfig* Release() {
    iconfig* config = config_;
    config_ = nullptr;
    return config;
  }

 private:
  iconfig* config_;
};

// A successful login or registration saves the configuration file but leaves its handle
// open. Only the latest such handle is kept; an earlier one, already saved, is freed.
void KeepOpen(iconfig* config) {
  static iconfig* kept = nullptr;
  if (kept) CloseConfigNoSave(kept);
  kept = config;
}

std::string ReadText(iconfig* config, const char* name) {
  const char* value = config ? ReadString(config, name, "") : "";
  return value ? value : "";
}

std::string ReadSecretText(iconfig* config, const char* name) {
  const char* value = config ? ReadSecret(config, name, "") : "";
  return value ? value : "";
}

// The cached configuration holds fourteen short texts; a file much larger is not one.
constexpr int64_t kMaxSwitchboardCacheBytes = 64 << 10;

// Reads the cached configuration; false when the file is missing, not a regular file (a FIFO
// there must not block the start), too large or not JSON.
bool ReadCachedConfig(Json::Value* value) {
  std::string text;
  if (utilities::ReadDeviceFile(kSwitchboardCachePath, kMaxSwitchboardCacheBytes, &text) !=
      utilities::FileRead::kRead) {
    return false;
  }
  Json::Reader reader;
  try {
    return reader.parse(text.data(), text.data() + text.size(), *value, true);
  } catch (const std::exception&) {
    return false;  // too deeply nested to be a configuration
  }
}

}  // namespace

StoreManager* StoreManager::Instance() {
  static StoreManager instance;
  return &instance;
}

StoreManager::StoreManager() : downloader_(kDownloadFolder, nullptr) {}

// Destroying download_future_ waits for a running download; downloader_ outlives it.
StoreManager::~StoreManager() = default;

int StoreManager::Init() {
  ConfigHandle config;
  if (!config.get()) return -1;

  uint32_t stored = static_cast<uint32_t>(ReadInt(config.get(), "switchboard_update_time", 0));
  uint32_t age = static_cast<uint32_t>(NowSeconds()) - stored;  // a future time wraps: old
  if (age > kSwitchboardMaxAge) {
    if (ConfigFromServer() != 0) return -1;
    if (config_.clientShopWebserviceUrl.empty()) return -7;
    WriteInt(config.get(), "switchboard_update_time", NowSeconds());
    SaveConfig(config.get());
  } else {
    Json::Value cached;
    if (ReadCachedConfig(&cached)) {
      config_ = SwitchboardConfig::Parse(cached);
      server_api_.config_ = config_;
    } else {
      if (ConfigFromServer() != 0) return -1;
      WriteInt(config.get(), "switchboard_update_time", NowSeconds());
      SaveConfig(config.get());
    }
  }

  ServerApi::Result result;
  std::tie(result, languages_) = server_api_.GetLanguages();

  session_id_ = ReadText(config.get(), "session_id");
  if (session_id_.empty()) {
    NewSession(config.get());
  } else {
    server_api_.session_id_ = session_id_;
  }

  cart_.Load();
  LoadPurchased();
  config.Close();
  return 0;
}

int StoreManager::ConfigFromServer() {
  std::string url = utilities::ConfigurationServerUrl(VISTREL_SWITCHBOARD_URL);
  if (const char* serial = GetSerialNumber()) url += serial;

  ServerApi::Result result;
  // The record is taken whatever the outcome: a failed fetch leaves config_ empty, while the
  // client keeps the configuration it had.
  std::tie(result, config_) = server_api_.CallSwitchboard(url);
  if (result.code_ != ServerApi::kOk) return -1;
  server_api_.config_ = config_;

  std::ostringstream text;
  text << config_.ToJson();
  utilities::WriteFileAtomically(kSwitchboardCachePath, text.str());

  if (!config_.clientStandbyImage.empty()) {
    opds::ResourceDownloader downloader(kStandbyFolder, nullptr);
    utilities::Downloader::Limits limits;
    limits.max_bytes = kStandbyMaxBytes;
    limits.max_milliseconds = kStandbyMaxMilliseconds;
    downloader.SetLimits(limits);
    if (downloader.DownloadResource(config_.clientStandbyImage, kStandbyName, nullptr) == 0) {
      if (ibitmap* picture = LoadBitmap(kStandbyPath)) {
        WritePartnerPowerOffLogo(picture);
        std::free(picture);
      }
    }
  }
  return 0;
}

int StoreManager::NewSession(iconfig_s* config) {
  std::unique_ptr<ConfigHandle> own;
  if (!config) own = std::make_unique<ConfigHandle>();
  iconfig* handle = config ? config : own->get();

  std::string user = ReadText(handle, "user_name");
  std::string password = ReadSecretText(handle, "password");
  int result = -1;
  if (!user.empty() && !password.empty() &&
      server_api_.LogIn(user, password).code_ == ServerApi::kOk) {
    session_id_ = server_api_.session_id_;
    WriteString(handle, "session_id", session_id_.c_str());
    SaveConfig(handle);
    result = 0;
  }
  if (own && own->get()) own->Close();
  return result;
}

ServerApi::Result StoreManager::LogIn(const std::string& email, const std::string& password) {
  return SignIn(&ServerApi::LogIn, email, password);
}

ServerApi::Result StoreManager::Register(const std::string& email, const std::string& password) {
  return SignIn(&ServerApi::Register, email, password);
}

ServerApi::Result StoreManager::SignIn(SignInCall call, const std::string& email,
                                       const std::string& password) {
  ConfigHandle config;
  // Without a configuration file the shop is not asked, and that counts as success.
  if (!config.get()) return ServerApi::Result(ServerApi::kOk);
  ServerApi::Result result = (server_api_.*call)(email, password);
  if (result.code_ != ServerApi::kOk) return result;

  session_id_ = server_api_.session_id_;
  WriteString(config.get(), "session_id", session_id_.c_str());
  WriteString(config.get(), "user_name", email.c_str());
  WriteSecret(config.get(), "password", password.c_str());
  SaveConfig(config.get());
  KeepOpen(config.Release());
  LoadPurchased();
  return result;
}

void StoreManager::LogOut() {
  utilities::BookStoreAuthConfigs::logOut();
  session_id_.clear();
  server_api_.session_id_ = session_id_;
  cart_.Clear();
  cart_.Save();
  SetPurchased({});
  download_queue_.clear();
  current_download_ = Book();
}

int StoreManager::ForgetAccount() {
  LogOut();
  ConfigHandle config;
  if (!config.get()) return -1;
  WriteString(config.get(), "session_id", "");
  WriteString(config.get(), "user_name", "");
  WriteSecret(config.get(), "password", "");
  const int saved = SaveConfig(config.get());
  config.Close();
  return saved == 1 ? 0 : -1;
}

bool StoreManager::IsLoggedIn() { return !session_id_.empty(); }

std::string StoreManager::getLogin() {
  ConfigHandle config;
  return ReadText(config.get(), "user_name");
}

std::string StoreManager::getPassword() {
  ConfigHandle config;
  return ReadSecretText(config.get(), "password");
}

std::vector<Book> StoreManager::LoadPurchased() {
  ServerApi::Result result;
  std::vector<Book> books;
  std::tie(result, books) = server_api_.GetUserEbook();
  SetPurchased(std::move(books));
  return purchased_;
}

ServerApi::Result StoreManager::AddToCart(const Book& book) {
  cart_.AddToCart(book);
  cart_.Save();
  return ServerApi::Result(ServerApi::kOk);
}

int StoreManager::RemoveFromCart(const Book& book) {
  cart_.EraseLine(book);  // the file keeps the line until the next save
  return 0;
}

int StoreManager::RemoveFromCart(unsigned int index) {
  cart_.RemoveFromCart(index);
  cart_.Save();
  return 0;
}

std::string StoreManager::GetShopName() { return config_.clientName; }

std::string StoreManager::GetClientId() { return config_.clientID; }

int StoreManager::RegisterPushNotification() { return 0; }

}  // namespace vistrel
}  // namespace norbel
