#include "browser_choice.h"

#include <memory>

#include "host/environment.h"
#include "nbutils/browser_authorization.h"
#include "nbutils/chromium_browser.h"

namespace vistrel_cli {

using norbel::utilities::BrowserAuthorization;

bool TakeBrowserOptions(std::vector<std::string>* words, BrowserChoice* choice,
                        std::string* problem) {
  std::vector<std::string> rest;
  for (size_t i = 0; i < words->size(); ++i) {
    const std::string& word = (*words)[i];
    std::string value;
    if (word == "--headless") {
      choice->headless = true;
      continue;
    } else if (word == "--browser") {
      if (i + 1 == words->size()) {
        *problem = "--browser needs a value: chromium or http";
        return false;
      }
      value = (*words)[++i];
    } else if (word.compare(0, 10, "--browser=") == 0) {
      value = word.substr(10);
    } else {
      rest.push_back(word);
      continue;
    }
    if (value == "chromium") {
      choice->kind = BrowserChoice::kChromium;
    } else if (value == "http") {
      choice->kind = BrowserChoice::kHttp;
    } else {
      *problem = "unknown browser '" + value + "' (chromium or http)";
      return false;
    }
  }
  *words = rest;
  return true;
}

std::string UseBrowser(const BrowserChoice& choice, std::string* problem) {
  BrowserChoice settled = choice;
  settled.headless = settled.headless || vistrel_host::BrowserHeadless();
  if (settled.kind == BrowserChoice::kAuto) {
    switch (vistrel_host::BrowserSetting()) {
      case vistrel_host::Browser::kChromium:
        settled.kind = BrowserChoice::kChromium;
        break;
      case vistrel_host::Browser::kHttp:
        settled.kind = BrowserChoice::kHttp;
        break;
      case vistrel_host::Browser::kOther:
        *problem = "VISTREL_BROWSER must be chromium or http";
        return "";
      case vistrel_host::Browser::kUnset: {
        const bool shown = settled.headless || vistrel_host::HasDisplay();
        settled.kind = norbel::utilities::ChromiumInstalled() && shown ? BrowserChoice::kChromium
                                                                       : BrowserChoice::kHttp;
        break;
      }
    }
  }
  if (settled.kind == BrowserChoice::kHttp) {
    BrowserAuthorization::SetBackend(norbel::utilities::CreateHttpBrowserBackend());
    return "the redirect follower (no browser)";
  }
  if (!norbel::utilities::ChromiumInstalled()) {
    *problem = std::string("no Chromium at ") +
               norbel::utilities::ChromiumOptions::kDefaultExecutable +
               " (apt-get install chromium)";
    return "";
  }
  if (!settled.headless && !vistrel_host::HasDisplay()) {
    *problem = "no display for a Chromium window (DISPLAY is unset); use --headless";
    return "";
  }
  norbel::utilities::ChromiumOptions options;
  options.headless = settled.headless;
  BrowserAuthorization::SetBackend(norbel::utilities::CreateChromiumBrowserBackend(options));
  return settled.headless ? "chromium (headless)" : "chromium (a window)";
}

}  // namespace vistrel_cli
