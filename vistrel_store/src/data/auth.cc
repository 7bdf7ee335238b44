#include "vistrel_store/auth.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include "check_log.h"
#include "nbutils/url.h"
#include "panelkit/panelkit.h"

namespace norbel {
namespace vistrel {
namespace {

constexpr char kBrowserName[] = "vistrel";
constexpr char kBrowserPath[] = "/kelmast/bin/browser.app";
constexpr char kLogoResource[] = "browser_vistrel";
constexpr char kLogoPath[] = "/tmp/vistrel_browser_logo.bmp";

// The shop's two return addresses, matched anywhere in a visited address.
constexpr char kPayPalReturn[] = "/pay/paypal";
constexpr char kGiveUpReturn[] = "/pay/back";

// Where the device log places these lines; kept as the log has always spelt them.
constexpr int kRunFailedLine = 36;
constexpr int kNotLoggedInLine = 41;
constexpr int kUrlChangedLine = 62;
constexpr char kRunFunction[] = "int norbel::vistrel::Auth::Run(const std::string &)";
constexpr char kUrlChangedFunction[] =
    "virtual void norbel::vistrel::Auth::UrlChanged(const std::string &)";

}  // namespace

Auth::Auth() : browser_(kBrowserName, this), success_(false) {}

Auth::~Auth() = default;

int Auth::Run(const std::string& url) {
  success_ = false;
  std::vector<std::string> args{"--paypal"};
  // The browser shows the shop's logo when the device has it; without one it opens plain.
  if (ibitmap* logo = GetResource(kLogoResource, nullptr)) {
    SaveBitmap(kLogoPath, logo);
    free(logo);
    args.push_back("-img");
    args.push_back(kLogoPath);
  }
  browser_.SetBrowserPath(kBrowserPath);
  int err = browser_.Start(url, args);
  if (err != -1) {
    // Written for every result but -1, 0 included: the caller judges the result.
    nb_print_log2(kLogError, kAuthSource, kRunFailedLine, kRunFunction,
                  "err:[%d] Authorize - failed", err);
  } else if (!success_) {
    nb_print_log2(kLogError, kAuthSource, kNotLoggedInLine, kRunFunction, "Failed to log it");
  }
  return err;
}

bool Auth::IsRunning() {
  std::lock_guard<std::mutex> guard(browser_.lock());
  return browser_.running();
}

void Auth::SetFocus() { browser_.SetFocus(); }

void Auth::UrlChanged(const std::string& url) {
  nb_print_log2(kLogTrace, kAuthSource, kUrlChangedLine, kUrlChangedFunction,
                "Auth::UrlChanged. url_string = [%s]", url.c_str());
  if (url.empty()) return;
  if (url.find(kPayPalReturn) != std::string::npos) {
    utilities::Url address(url);
    std::map<std::string, std::string> query = utilities::Url::ParseQuery(address.query());
    auto token = query.find("token");
    if (token != query.end()) {
      token_ = token->second;
      auto payer_id = query.find("PayerID");
      payer_id_ = payer_id != query.end() ? payer_id->second : std::string();
      success_ = true;
    } else {
      success_ = false;
    }
  } else if (url.find(kGiveUpReturn) != std::string::npos) {
    success_ = false;
  } else {
    return;  // the buyer is still on the payment site
  }
  std::lock_guard<std::mutex> guard(browser_.lock());
  browser_.set_running(false);
}

void Auth::BrowserClosed() {}

}  // namespace vistrel
}  // namespace norbel
