#include "support/chromium_fixture.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>

namespace vistrel_test {
namespace {

using norbel::utilities::BrowserAuthorization;
using norbel::utilities::ChromiumPage;

std::string JsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

Json::Value Evaluate(ChromiumPage& page, const std::string& expression) {
  Json::Value params;
  params["expression"] = expression;
  params["returnByValue"] = true;
  Json::Value result;
  Json::Reader().parse(page.Call("Runtime.evaluate", JsonText(params)), result);
  return result["result"]["value"];
}

}  // namespace

bool OnlyLoopback() {
  std::ifstream dev("/proc/self/net/dev");
  std::string line;
  std::set<std::string> names;
  for (int number = 0; std::getline(dev, line); ++number) {
    const size_t colon = line.find(':');
    if (number < 2 || colon == std::string::npos) continue;  // two header lines
    const size_t begin = line.find_first_not_of(' ');
    names.insert(line.substr(begin, colon - begin));
  }
  return names == std::set<std::string>{"lo"};
}

void Buyer::OnLoad(ChromiumPage& page) {
  loaded.push_back(page.url());
  if (page.url().find(on) == std::string::npos) return;
  if (close == "browser") {
    page.Call("Browser.close", "{}", true);
    return;
  }
  if (close == "tab") {
    page.Call("Page.close", "{}");
    return;
  }
  if (!email.empty()) {
    Evaluate(page, "document.querySelector('#email').focus()");
    Json::Value text;
    text["text"] = email;
    page.Call("Input.insertText", JsonText(text));
  }
  const Json::Value at =
      Evaluate(page, "(() => { const r = document.querySelector('" + click +
                         "').getBoundingClientRect(); return [r.x + r.width / 2, r.y + r.height / "
                         "2]; })()");
  for (const char* type : {"mousePressed", "mouseReleased"}) {
    Json::Value event;
    event["type"] = type;
    event["x"] = at[0];
    event["y"] = at[1];
    event["button"] = "left";
    event["clickCount"] = 1;
    page.Call("Input.dispatchMouseEvent", JsonText(event));
  }
}

int Recorder::Run(const std::string& url) {
  BrowserAuthorization session("test", this);
  current = &session;
  return session.Start(url, {"--paypal"});
}

void Recorder::UrlChanged(const std::string& url) {
  urls.push_back(url);
  if (url.find("/pay/paypal") != std::string::npos || url.find("/pay/back") != std::string::npos) {
    std::lock_guard<std::mutex> guard(current->lock());
    current->set_running(false);
  }
}

void ChromiumTest::SetUp() {
  DeviceTest::SetUp();
  // The test command's browser stage sets VISTREL_REQUIRE_BROWSER: there a skip would hide
  // that no browser test ran.
  const bool required = std::getenv("VISTREL_REQUIRE_BROWSER") != nullptr;
  if (!OnlyLoopback()) {
    if (required) FAIL() << "not in a network namespace that holds nothing but loopback";
    GTEST_SKIP() << "starts Chromium only in a network namespace that holds nothing but "
                    "loopback: run under `unshare -n` (scripts/test.sh does)";
  }
  if (!norbel::utilities::ChromiumInstalled()) {
    if (required) FAIL() << "Chromium is not installed";
    GTEST_SKIP() << "Chromium is not installed";
  }
  setenv("TMPDIR", work_dir_.c_str(), 1);
}

void ChromiumTest::TearDown() {
  if (!IsSkipped()) {
    for (const auto& entry : std::filesystem::directory_iterator(work_dir_)) {
      EXPECT_EQ(entry.path().filename().string().find("vistrel-chromium-"), std::string::npos)
          << entry.path();
    }
    EXPECT_EQ(BrowsersUsing(work_dir_), 0);
  }
  BrowserAuthorization::SetBackend(nullptr);
  unsetenv("TMPDIR");
  DeviceTest::TearDown();
}

void ChromiumTest::UseChromium(Buyer* buyer, std::chrono::milliseconds session_limit) {
  norbel::utilities::ChromiumOptions options;
  options.headless = true;
  options.session_limit = session_limit;
  if (buyer != nullptr) options.on_load = [buyer](ChromiumPage& page) { buyer->OnLoad(page); };
  BrowserAuthorization::SetBackend(norbel::utilities::CreateChromiumBrowserBackend(options));
}

int ChromiumTest::BrowsersUsing(const std::string& folder) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream in(entry.path() / "cmdline", std::ios::binary);
    const std::string command_line((std::istreambuf_iterator<char>(in)), {});
    if (command_line.find("--user-data-dir=" + folder) != std::string::npos) ++count;
  }
  return count;
}

bool ChromiumTest::Logged(const std::string& text) const {
  for (const std::string& line : LogLines()) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace vistrel_test
