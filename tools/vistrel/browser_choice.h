// Which browser `vistrel pay` shows the payment page in: a real Chromium (with a window, or
// headless) or the redirect follower, from the command line, the host emulation's
// VISTREL_BROWSER / VISTREL_BROWSER_HEADLESS, or what the machine has.
#ifndef TOOLS_VISTREL_BROWSER_CHOICE_H_
#define TOOLS_VISTREL_BROWSER_CHOICE_H_

#include <string>
#include <vector>

namespace vistrel_cli {

struct BrowserChoice {
  enum Kind { kAuto, kChromium, kHttp };
  Kind kind = kAuto;
  bool headless = false;
};

// Takes "--browser chromium|http", "--browser=..." and "--headless" out of `words`, leaving the
// rest in order. False, with the reason in *problem, for a value it does not know.
bool TakeBrowserOptions(std::vector<std::string>* words, BrowserChoice* choice,
                        std::string* problem);

// Settles `choice`: the command line first, then the host emulation's variables, then a
// Chromium window when Chromium and a display are there, else the redirect follower. Installs
// that backend for the payment and returns what it is, for the user ("chromium (headless)",
// "chromium (a window)", "the redirect follower (no browser)"). "" with *problem when the
// chosen browser cannot be used.
std::string UseBrowser(const BrowserChoice& choice, std::string* problem);

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_BROWSER_CHOICE_H_
