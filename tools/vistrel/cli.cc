#include "cli.h"

#include <json/value.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>
#include <new>
#include <tuple>

#include "host/environment.h"
#include "panelkit/panelkit.h"

namespace vistrel_cli {

using norbel::utilities::TransferOutcome;
using norbel::vistrel::Book;
using norbel::vistrel::Cart;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

namespace {

// The tool's own notes on the device, beside the library's configuration.
constexpr char kToolStatePath[] = "/mnt/ext1/system/config/vistrel_tool.cfg";
constexpr char kLibraryConfigPath[] = "/mnt/ext1/system/config/vistrel_config.cfg";
// The library fetches the configuration again once it is this old.
constexpr int kConfigMaxAgeSeconds = 1800;

std::mutex g_exchanges_lock;
std::vector<TransferOutcome> g_exchanges;  // since the last StartStore()

std::string SwitchboardInForce() {
  return vistrel_host::SwitchboardUrl(VISTREL_BUILT_IN_SWITCHBOARD_URL);
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

std::string ReadToolNote(const char* key) {
  iconfig* config = OpenConfig(kToolStatePath, nullptr);
  if (config == nullptr) return "";
  const char* value = ReadString(config, key, "");
  std::string text = value != nullptr ? value : "";
  CloseConfigNoSave(config);
  return text;
}

void WriteToolNote(const char* key, const std::string& value) {
  iconfig* config = OpenConfig(kToolStatePath, nullptr);
  if (config == nullptr) return;
  WriteString(config, key, value.c_str());
  CloseConfig(config);
}

int NowSeconds() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int>(now.tv_sec);
}

// A cached configuration from another configuration server stays in force until it is 30
// minutes old: say so rather than silently talking to the old shop.
void NoteSwitchboardChange() {
  const std::string recorded = ReadToolNote("switchboard_url");
  const std::string in_force = SwitchboardInForce();
  if (recorded.empty() || recorded == in_force) return;
  iconfig* config = OpenConfig(kLibraryConfigPath, nullptr);
  const int fetched = config != nullptr ? ReadInt(config, "switchboard_update_time", 0) : 0;
  if (config != nullptr) CloseConfigNoSave(config);
  const int minutes = std::max(0, kConfigMaxAgeSeconds - (NowSeconds() - fetched) + 59) / 60;
  Warn("the shop configuration in use came from " + recorded + "; " + in_force +
       " is used once it is older (in " + std::to_string(minutes) +
       " min) or at once after vistrel init --refresh");
}

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

int Fail(int code, const std::string& text) {
  std::fprintf(stderr, "vistrel: %s\n", text.c_str());
  return code;
}

void Warn(const std::string& text) { std::fprintf(stderr, "vistrel: warning: %s\n", text.c_str()); }

namespace {

// The device's event log goes beside the device folder unless told otherwise, so that the
// library's own log lines do not mix with the tool's messages on stderr.
void UseDefaultEventLog() {
  if (std::getenv("VISTREL_LOG_FILE") == nullptr) {
    setenv("VISTREL_LOG_FILE", (vistrel_host::DeviceRoot() + ".events.log").c_str(), 1);
  }
}

// An error text as part of one line.
std::string OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

void SetAsideUnreadableCart() {
  std::string kept_as;
  std::string problem;
  if (!norbel::vistrel::Cart::SetAsideUnreadableFile(&kept_as, &problem)) return;
  nb_print_log2(2, "tools/vistrel/cli", __LINE__, __PRETTY_FUNCTION__,
                "unreadable cart file (%s) kept as %s, replaced by an empty cart", problem.c_str(),
                kept_as.c_str());
  std::fprintf(stderr,
               "vistrel: the cart file could not be read (%s); kept as %s, the cart starts "
               "empty\n",
               problem.c_str(), kept_as.c_str());
}

}  // namespace

int GuardedRun(const std::string& command, const std::function<int()>& run) {
  try {
    UseDefaultEventLog();
    SetAsideUnreadableCart();
    return run();
  } catch (const Json::Exception& e) {
    return Fail(kExitFailed, command + ": the shop sent a value of the wrong JSON kind (" +
                                 OneLine(e.what()) + ")");
  } catch (const std::bad_alloc&) {
    return Fail(kExitFailed, command + ": out of memory");
  } catch (const std::exception& e) {
    return Fail(kExitFailed, command + ": " + OneLine(e.what()));
  } catch (...) {
    return Fail(kExitFailed, command + ": unexpected error");
  }
}

std::string Args::Get(const std::string& name) const {
  auto it = options.find(name);
  return it == options.end() ? std::string() : it->second;
}

std::string Closest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  size_t best_distance = 3;  // more than two edits is no typo
  for (const std::string& candidate : candidates) {
    const size_t distance = EditDistance(word, candidate);
    const bool prefix = word.size() >= 3 && StartsWith(candidate, word);
    if (prefix && best_distance > 1) {
      best = candidate;
      best_distance = 1;
    } else if (distance < best_distance && distance < candidate.size()) {
      best = candidate;
      best_distance = distance;
    }
  }
  return best;
}

bool ParseArgs(const std::vector<std::string>& words, const std::vector<std::string>& known,
               const std::vector<std::string>& flags, Args* args, std::string* error) {
  auto listed = [](const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
  };
  bool options_end = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (!options_end && word == "--") {
      options_end = true;  // what follows is positional, even when it begins with "--"
      continue;
    }
    if (options_end || word.size() < 3 || word.compare(0, 2, "--") != 0) {
      args->positional.push_back(word);
      continue;
    }
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    if (listed(flags, name)) {
      if (equals != std::string::npos) {
        *error = "option " + name + " takes no value";
        return false;
      }
      args->options[name] = "";
    } else if (!listed(known, name)) {
      std::vector<std::string> all(known);
      all.insert(all.end(), flags.begin(), flags.end());
      const std::string guess = Closest(name, all);
      *error = "unknown option " + name + (guess.empty() ? "" : " (did you mean " + guess + "?)");
      return false;
    } else if (equals != std::string::npos) {
      args->options[name] = word.substr(equals + 1);
    } else if (i + 1 == words.size()) {
      *error = "option " + name + " needs a value";
      return false;
    } else {
      args->options[name] = words[++i];
    }
  }
  return true;
}

std::string SwitchboardForMessages() {
  const char* url = std::getenv("VISTREL_SWITCHBOARD_URL");
  return url != nullptr && *url != '\0' ? url : "the built-in configuration server";
}

void WatchExchanges(bool verbose) {
  norbel::utilities::SetTransferObserver([verbose](const TransferOutcome& outcome) {
    if (verbose) {
      std::fprintf(stderr, "vistrel: %s %s: %s, %lld ms\n", outcome.method.c_str(),
                   outcome.url.c_str(), outcome.Describe().c_str(),
                   static_cast<long long>(outcome.elapsed_ms));
    }
    std::lock_guard<std::mutex> hold(g_exchanges_lock);
    if (g_exchanges.size() < 1000) g_exchanges.push_back(outcome);
  });
}

bool Unanswered(const TransferOutcome& outcome) {
  if (outcome.curl_code != 0 || outcome.http_code >= 500) return true;
  // Only the shop's web service is posted to; anything but 200 there is no answer. Nor is
  // anything but 200 from the configuration server (a wrong address answers 404).
  return (outcome.method == "POST" || StartsWith(outcome.url, SwitchboardInForce())) &&
         outcome.http_code != 200;
}

void ForgetExchanges() {
  std::lock_guard<std::mutex> hold(g_exchanges_lock);
  g_exchanges.clear();
}

int ReportUnanswered(const std::string& what) {
  TransferOutcome failed;
  if (!FirstFailedExchange(&failed)) return kExitOk;
  return Fail(kExitUnreachable,
              what + " failed: " + failed.method + " " + failed.url + ": " + failed.Describe());
}

bool FirstFailedExchange(TransferOutcome* outcome) {
  std::lock_guard<std::mutex> hold(g_exchanges_lock);
  for (const TransferOutcome& exchange : g_exchanges) {
    if (Unanswered(exchange)) {
      *outcome = exchange;
      return true;
    }
  }
  return false;
}

bool ConfigurationWasFetched() {
  const std::string switchboard = SwitchboardInForce();
  std::lock_guard<std::mutex> hold(g_exchanges_lock);
  for (const TransferOutcome& exchange : g_exchanges) {
    if (exchange.method == "GET" && StartsWith(exchange.url, switchboard) && exchange.ok()) {
      return true;
    }
  }
  return false;
}

StoreManager* StartStore(int* exit_code, Need need) {
  // The device's event log goes beside the device folder unless told otherwise, so that the
  // library's own log lines do not mix with the tool's messages on stderr.
  if (std::getenv("VISTREL_LOG_FILE") == nullptr) {
    setenv("VISTREL_LOG_FILE", (vistrel_host::DeviceRoot() + ".events.log").c_str(), 1);
  }
  if (!vistrel_host::PrepareDeviceRoot()) {
    *exit_code =
        Fail(kExitFailed, "cannot prepare the device folder " + vistrel_host::DeviceRoot());
    return nullptr;
  }
  ForgetExchanges();
  StoreManager* store = StoreManager::Instance();
  const int result = store->Init();
  const bool fetched = ConfigurationWasFetched();
  if (fetched) WriteToolNote("switchboard_url", SwitchboardInForce());
  TransferOutcome failed;
  const bool any_failed = FirstFailedExchange(&failed);
  const std::string how =
      any_failed ? failed.method + " " + failed.url + ": " + failed.Describe() : "";
  if (result == -7) {
    *exit_code = Fail(kExitUnreachable, "the shop configuration from " + SwitchboardForMessages() +
                                            " names no shop web service");
    return nullptr;
  }
  if (need == Need::kDevice) {
    if (result != 0 || any_failed) {
      Warn("working from what the device stored: " +
           (any_failed ? how : std::string("the device configuration could not be read")));
    }
    return store;
  }
  if (result != 0) {
    *exit_code = any_failed
                     ? Fail(kExitUnreachable, "cannot reach the configuration server: " + how)
                     : Fail(kExitFailed, "cannot open the device configuration " +
                                             vistrel_host::ResolveDevicePath(kLibraryConfigPath));
    return nullptr;
  }
  if (any_failed) {
    *exit_code = Fail(kExitUnreachable, "cannot reach the shop: " + how);
    return nullptr;
  }
  if (!fetched) NoteSwitchboardChange();
  return store;
}

std::string Prop(const Book& book, Book::StringProps prop) {
  auto it = book.string_props_.find(prop);
  return it == book.string_props_.end() ? std::string() : it->second;
}

int64_t IntProp(const Book& book, Book::IntProps prop) {
  auto it = book.int_props_.find(prop);
  return it == book.int_props_.end() ? 0 : it->second;
}

std::string Describe(const Book& book) {
  return Prop(book, Book::Author) + " - " + Prop(book, Book::Title);
}

std::string StateName(int state) {
  switch (state) {
    case norbel::vistrel::kInCart:
      return "in cart";
    case norbel::vistrel::kPurchased:
      return "purchased";
    case norbel::vistrel::kDownloading:
      return "downloading";
    case norbel::vistrel::kDownloaded:
      return "downloaded";
    default:
      return "unknown";
  }
}

std::string FormatCents(int64_t cents) {
  const int64_t magnitude = cents < 0 ? -cents : cents;
  char text[48];
  std::snprintf(text, sizeof text, "%s%lld,%02lld EUR", cents < 0 ? "-" : "",
                static_cast<long long>(magnitude / 100), static_cast<long long>(magnitude % 100));
  return text;
}

std::string Count(size_t n, const std::string& thing) {
  return std::to_string(n) + " " + thing + (n == 1 ? "" : "s");
}

int64_t CartCents(const Cart& cart) {
  int64_t total = 0;
  for (const Book& book : cart.items()) total += IntProp(book, Book::Price);
  return total;
}

std::string WithHostPath(const std::string& device_path) {
  const std::string host = vistrel_host::ResolveDevicePath(device_path);
  return host == device_path ? device_path : device_path + " (on this host: " + host + ")";
}

int ReportRefusal(const std::string& what, const ServerApi::Result& result) {
  if (!result.message_.empty()) return Fail(kExitFailed, what + " refused: " + result.message_);
  const TransferOutcome last = norbel::utilities::LastTransferOutcome();
  if (last.url.empty()) return Fail(kExitFailed, what + " failed");
  if (last.ok()) return Fail(kExitFailed, what + " refused by the shop without a reason");
  return Fail(kExitUnreachable,
              what + " failed: " + last.method + " " + last.url + ": " + last.Describe());
}

int Usage(const std::string& problem) { return Fail(kExitUsage, problem + " (see --help)"); }

StoreManager* StartLoggedIn(int* exit_code) {
  StoreManager* store = StartStore(exit_code);
  if (store != nullptr && !store->IsLoggedIn()) {
    *exit_code = Fail(kExitNotLoggedIn, "not logged in (run vistrel login or vistrel register)");
    return nullptr;
  }
  // An empty list of purchases may be a stored session that the shop no longer accepts: the
  // library reads a refusal as no purchases, so ask once more and hear the shop's words.
  if (store != nullptr && store->purchased().empty()) {
    ServerApi api;
    api.config_ = store->config();
    api.session_id_ = store->session_id();
    const ServerApi::Result result = std::get<0>(api.GetUserEbook());
    if (result.code_ != ServerApi::kOk && !result.message_.empty()) {
      *exit_code =
          Fail(kExitNotLoggedIn,
               "the shop refused the stored session: " + result.message_ + " (run vistrel login)");
      return nullptr;
    }
  }
  return store;
}

void PrintCart(StoreManager* store) {
  const auto& cart = store->cart();
  for (const Book& book : cart.items()) {
    std::printf("%-14s %10s  %s [%s]\n", Prop(book, Book::Ean).c_str(),
                FormatCents(IntProp(book, Book::Price)).c_str(), Describe(book).c_str(),
                Prop(book, Book::EbookType).c_str());
  }
  std::printf("%s, total %s\n", Count(cart.GetSize(), "book").c_str(),
              FormatCents(CartCents(cart)).c_str());
}

int RefuseIfPurchased(StoreManager* store, const std::string& ean, bool force) {
  for (const Book& book : store->purchased()) {
    if (Prop(book, Book::Ean) != ean) continue;
    if (force) {
      Warn("already purchased: " + ean + " (" + Describe(book) + "); adding it again");
      return 0;
    }
    std::string text = "already purchased: " + ean;
    text += " (" + Describe(book) + "); vistrel download " + ean;
    text += " fetches it, --force adds it to buy it again";
    return Fail(kExitFailed, text);
  }
  return 0;
}

bool ReadLine(std::string* line) {
  line->clear();
  int c;
  while ((c = std::getchar()) != EOF && c != '\n') {
    if (line->size() < 4096) line->push_back(static_cast<char>(c));
  }
  if (!line->empty() && line->back() == '\r') line->pop_back();
  return c != EOF || !line->empty();
}

bool Confirm(const std::string& question) {
  std::fprintf(stderr, "%s [y/N] ", question.c_str());
  std::fflush(stderr);
  std::string answer;
  if (!ReadLine(&answer)) return false;
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

bool PromptPassword(const std::string& prompt, std::string* password) {
  if (!isatty(STDIN_FILENO)) return false;
  struct termios saved;
  if (tcgetattr(STDIN_FILENO, &saved) != 0) return false;
  struct termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  // Echo goes off before the prompt shows, so that nothing typed after it is echoed.
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  std::fprintf(stderr, "%s", prompt.c_str());
  std::fflush(stderr);
  const bool read = ReadLine(password);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
  return read;
}

}  // namespace vistrel_cli
