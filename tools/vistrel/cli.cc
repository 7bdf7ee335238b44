#include "cli.h"

#include <json/value.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "host/environment.h"
#include "panelkit/panelkit.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

int Fail(int code, const std::string& text) {
  std::fprintf(stderr, "vistrel: %s\n", text.c_str());
  return code;
}

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

bool ParseArgs(const std::vector<std::string>& words, const std::vector<std::string>& known,
               const std::vector<std::string>& flags, Args* args, std::string* error) {
  auto listed = [](const std::vector<std::string>& names, const std::string& name) {
    for (const std::string& n : names) {
      if (n == name) return true;
    }
    return false;
  };
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word.size() < 3 || word.compare(0, 2, "--") != 0) {
      args->positional.push_back(word);
    } else if (listed(flags, word)) {
      args->options[word] = "";
    } else if (!listed(known, word)) {
      *error = "unknown option " + word;
      return false;
    } else if (i + 1 == words.size()) {
      *error = "option " + word + " needs a value";
      return false;
    } else {
      args->options[word] = words[++i];
    }
  }
  return true;
}

std::string SwitchboardForMessages() {
  const char* url = std::getenv("VISTREL_SWITCHBOARD_URL");
  return url != nullptr && *url != '\0' ? url : "the built-in configuration server";
}

StoreManager* StartStore(int* exit_code) {
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
  StoreManager* store = StoreManager::Instance();
  const int result = store->Init();
  if (result == -7) {
    *exit_code = Fail(kExitUnreachable, "the shop configuration from " + SwitchboardForMessages() +
                                            " names no shop web service");
    return nullptr;
  }
  if (result != 0) {
    *exit_code = Fail(kExitUnreachable,
                      "shop unreachable: no configuration from " + SwitchboardForMessages());
    return nullptr;
  }
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
  char text[32];
  std::snprintf(text, sizeof text, "%lld,%02lld EUR", static_cast<long long>(cents / 100),
                static_cast<long long>(cents % 100));
  return text;
}

int ReportRefusal(const std::string& what, const ServerApi::Result& result) {
  if (result.message_.empty()) {
    return Fail(kExitUnreachable,
                what + " failed: the shop did not answer (" + SwitchboardForMessages() + ")");
  }
  return Fail(kExitFailed, what + " refused: " + result.message_);
}

int Usage(const std::string& problem) { return Fail(kExitUsage, problem + " (see --help)"); }

StoreManager* StartLoggedIn(int* exit_code) {
  StoreManager* store = StartStore(exit_code);
  if (store != nullptr && !store->IsLoggedIn()) {
    *exit_code = Fail(kExitNotLoggedIn, "not logged in (run vistrel login or vistrel register)");
    return nullptr;
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
  std::printf("%u books, total %s\n", cart.GetSize(), cart.GetTotalPriceFormatted().c_str());
}

}  // namespace vistrel_cli
