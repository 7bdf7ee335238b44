#include "nbutils/chromium_browser.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "chromium_process.h"
#include "panelkit/panelkit.h"

namespace norbel {
namespace utilities {
namespace {

constexpr const char* kSource = "platform/nbutils/src/chromium_browser";
constexpr int kEndedByHandler = 0;
constexpr int kClosed = -1;
constexpr int kIdleMs = 100;          // how often the running flag and focus are looked at
constexpr size_t kMaxPending = 4096;  // events kept while a command waits for its answer

using Clock = std::chrono::steady_clock;

#define CHROMIUM_LOG(level, ...) \
  nb_print_log2(level, kSource, __LINE__, __PRETTY_FUNCTION__, __VA_ARGS__)

// The flags that keep Chromium from talking to the network on its own (first-run pages, sync,
// component and safe-browsing updates, probes, metrics) and from asking anything at start-up.
std::vector<std::string> BrowserFlags(bool headless) {
  static const char kDisabledFeatures[] =
      "--disable-features=Translate,OptimizationHints,MediaRouter,DialMediaRouteProvider,"
      "AutofillServerCommunication,CertificateTransparencyComponentUpdater,"
      "InterestFeedContentSuggestions";
  std::vector<std::string> flags = {
      "--no-first-run",
      "--no-default-browser-check",
      "--disable-sync",
      "--disable-component-update",
      "--disable-background-networking",
      "--disable-default-apps",
      "--disable-extensions",
      "--disable-domain-reliability",
      "--disable-breakpad",
      "--disable-client-side-phishing-detection",
      "--safebrowsing-disable-auto-update",
      "--metrics-recording-only",
      "--no-pings",
      "--disable-quic",
      kDisabledFeatures,
      "--password-store=basic",
      "--disable-dev-shm-usage",
      "--noerrdialogs",
      "--hide-crash-restore-bubble",
  };
  if (geteuid() == 0) flags.push_back("--no-sandbox");  // Chromium refuses root otherwise
  if (headless) {
    flags.push_back("--headless=new");
    flags.push_back("--window-size=1280,900");
  }
  flags.push_back("about:blank");
  return flags;
}

std::string ToText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

bool Parse(const std::string& text, Json::Value* value) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  return reader->parse(text.data(), text.data() + text.size(), value, &errors);
}

int64_t MsUntil(Clock::time_point when) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(when - Clock::now()).count();
}

// One browser session: the process, the DevTools conversation with it and the addresses seen.
class ChromiumSession : public ChromiumPage {
 public:
  ChromiumSession(const ChromiumOptions& options, BrowserAuthorization& session,
                  std::atomic<bool>& focus_wanted)
      : options_(options), session_(session), focus_wanted_(focus_wanted) {}

  int Run(const std::string& url);

  const std::string& url() const override { return url_; }
  std::string Call(const std::string& method, const std::string& params_json,
                   bool to_browser) override;

 private:
  enum class Next { kMessage, kIdle, kClosed };

  int64_t Send(const std::string& method, const Json::Value& params, const std::string& session_id);
  // Waits up to `limit_ms` for the answer to command `id`, keeping every other message for
  // later. False when the command failed, was not answered in time, or the browser went away.
  bool Await(int64_t id, int64_t limit_ms, Json::Value* result);
  Next NextMessage(int timeout_ms, Json::Value* message);
  bool Attach(std::string* error);
  bool EnableDomains(const std::string& session_id, bool wait);
  // False when the message ends the session, with the session's result in *result.
  bool Handle(const Json::Value& message, int* result);
  void Report(const std::string& url);
  int BrowserGone();

  const ChromiumOptions& options_;
  BrowserAuthorization& session_;
  std::atomic<bool>& focus_wanted_;
  ChromiumProcess process_;
  std::deque<Json::Value> pending_;
  bool closed_ = false;
  Clock::time_point deadline_;
  int64_t next_id_ = 1;
  int64_t navigate_id_ = -1;
  std::string target_id_;
  std::string session_id_;
  std::map<std::string, std::string> watched_;  // session id to target (= main frame) id
  std::string url_;
  std::string last_reported_;
};

int ChromiumSession::Run(const std::string& url) {
  std::chrono::milliseconds limit = options_.session_limit;
  if (limit.count() <= 0) {
    limit = options_.headless ? std::chrono::minutes(3) : std::chrono::minutes(15);
  }
  deadline_ = Clock::time_point::max();  // start-up has limits of its own
  std::string error;
  if (!process_.Start(options_.executable, BrowserFlags(options_.headless), &error)) {
    CHROMIUM_LOG(2, "payment browser: cannot start chromium: %s", error.c_str());
    return kClosed;
  }
  if (!Attach(&error)) {
    CHROMIUM_LOG(2, "payment browser: %s", error.c_str());
    return closed_ ? BrowserGone() : kClosed;
  }
  deadline_ = Clock::now() + limit;
  Json::Value params(Json::objectValue);
  params["url"] = url;
  navigate_id_ = Send("Page.navigate", params, session_id_);

  for (;;) {
    if (!session_.IsRunning()) return kEndedByHandler;
    const int64_t left = MsUntil(deadline_);
    if (left <= 0) {
      CHROMIUM_LOG(2, "payment browser: no return address within %lld s; closing chromium",
                   static_cast<long long>(limit.count() / 1000));
      return kClosed;
    }
    if (focus_wanted_.exchange(false)) {
      Send("Page.bringToFront", Json::Value(Json::objectValue), session_id_);
      Json::Value target(Json::objectValue);
      target["targetId"] = target_id_;
      Send("Target.activateTarget", target, "");
    }
    Json::Value message;
    const Next next = NextMessage(static_cast<int>(std::min<int64_t>(left, kIdleMs)), &message);
    if (next == Next::kClosed) return BrowserGone();
    int result = 0;
    if (next == Next::kMessage && !Handle(message, &result)) return result;
  }
}

bool ChromiumSession::Attach(std::string* error) {
  Json::Value discover(Json::objectValue);
  discover["discover"] = true;
  const int64_t startup = options_.startup_limit.count();
  if (!Await(Send("Target.setDiscoverTargets", discover, ""), startup, nullptr)) {
    *error = closed_ ? "chromium ended during start-up"
                     : "chromium did not answer within " + std::to_string(startup / 1000) + " s";
    return false;
  }
  // Targets that exist already were announced before the answer.
  for (const Json::Value& message : pending_) {
    const Json::Value& info = message["params"]["targetInfo"];
    if (message["method"] == "Target.targetCreated" && info["type"] == "page") {
      target_id_ = info["targetId"].asString();
      break;
    }
  }
  Json::Value result;
  if (target_id_.empty()) {
    Json::Value create(Json::objectValue);
    create["url"] = "about:blank";
    if (!Await(Send("Target.createTarget", create, ""), options_.reply_limit.count(), &result)) {
      *error = "chromium opened no page";
      return false;
    }
    target_id_ = result["targetId"].asString();
  }
  Json::Value attach(Json::objectValue);
  attach["targetId"] = target_id_;
  attach["flatten"] = true;
  if (!Await(Send("Target.attachToTarget", attach, ""), options_.reply_limit.count(), &result) ||
      !result["sessionId"].isString()) {
    *error = "cannot attach to chromium's page";
    return false;
  }
  session_id_ = result["sessionId"].asString();
  watched_[session_id_] = target_id_;
  if (!EnableDomains(session_id_, true)) {
    *error = "chromium's page did not answer";
    return false;
  }
  return true;
}

bool ChromiumSession::EnableDomains(const std::string& session_id, bool wait) {
  // Inspector tells of crashes. Events of a domain whose enabling has not been answered yet can
  // be lost when the page moves to another renderer process, hence the wait before navigating.
  for (const char* domain : {"Page.enable", "Network.enable", "Inspector.enable"}) {
    const int64_t id = Send(domain, Json::Value(Json::objectValue), session_id);
    if (wait && !Await(id, options_.reply_limit.count(), nullptr)) return false;
  }
  return true;
}

bool ChromiumSession::Handle(const Json::Value& message, int* result) {
  const Json::Value& params = message["params"];
  if (message.isMember("id")) {
    const Json::Value& failure = message["result"]["errorText"];
    if (message["id"].asInt64() == navigate_id_ && failure.isString()) {
      CHROMIUM_LOG(2, "payment browser: cannot load the payment page: %s",
                   failure.asString().c_str());
      // A window shows the error and leaves the buyer to reload or close it; headless, nobody
      // would. (An aborted load was replaced by another, or is a crash on its way.)
      if (options_.headless && failure != "net::ERR_ABORTED") {
        *result = kClosed;
        return false;
      }
    }
    return true;
  }
  const std::string method = message["method"].asString();
  if ((method == "Target.targetDestroyed" && params["targetId"] == target_id_) ||
      (method == "Target.detachedFromTarget" && params["sessionId"] == session_id_)) {
    CHROMIUM_LOG(5, "payment browser: the buyer closed the page");
    *result = kClosed;
    return false;
  }
  if (method == "Target.targetCrashed" && params["targetId"] == target_id_) {
    CHROMIUM_LOG(2, "payment browser: chromium's page crashed (%s)",
                 params["status"].asString().c_str());
    *result = kClosed;
    return false;
  }
  const Json::Value& info = params["targetInfo"];
  if (method == "Target.targetCreated" && info["type"] == "page" &&
      info["openerId"] == target_id_) {  // a pop-up of the payment page: watched too
    Json::Value attach(Json::objectValue);
    attach["targetId"] = info["targetId"];
    attach["flatten"] = true;
    Send("Target.attachToTarget", attach, "");
    return true;
  }
  if (method == "Target.attachedToTarget" && info["openerId"] == target_id_ &&
      params["sessionId"].isString() && params["sessionId"] != session_id_) {
    watched_[params["sessionId"].asString()] = info["targetId"].asString();
    EnableDomains(params["sessionId"].asString(), false);
    Report(info["url"].asString());
    return true;
  }
  if (method == "Target.targetInfoChanged" && info["type"] == "page" &&
      info["openerId"] == target_id_) {
    // A pop-up's page, also the first one, which may come before its events are watched.
    Report(info["url"].asString());
    return true;
  }

  const std::string session_id = message["sessionId"].asString();
  auto watched = watched_.find(session_id);
  if (watched == watched_.end()) return true;
  const bool main = session_id == session_id_;
  const std::string& frame_id = watched->second;
  if (method == "Network.requestWillBeSent") {
    // Document requests of the main frame: the first address, every redirect hop, form posts.
    if (params["type"] == "Document" && params["frameId"] == frame_id) {
      Report(params["request"]["url"].asString() + params["request"]["urlFragment"].asString());
    }
  } else if (method == "Network.responseReceived") {
    // The page being shown; Page.frameNavigated can be missed when the page moves to another
    // renderer process.
    if (main && params["type"] == "Document" && params["frameId"] == frame_id) {
      url_ = params["response"]["url"].asString();
    }
  } else if (method == "Page.frameRequestedNavigation") {
    if (params["frameId"] == frame_id && params["disposition"] == "currentTab") {
      Report(params["url"].asString());
    }
  } else if (method == "Page.frameNavigated") {
    const Json::Value& frame = params["frame"];
    if (!frame.isMember("parentId")) {
      const std::string url = frame["url"].asString() + frame["urlFragment"].asString();
      if (main) url_ = url;
      Report(url);
    }
  } else if (method == "Page.navigatedWithinDocument") {
    if (params["frameId"] == frame_id) {
      if (main) url_ = params["url"].asString();
      Report(params["url"].asString());
    }
  } else if (method == "Page.loadEventFired") {
    if (main && options_.on_load && session_.IsRunning()) options_.on_load(*this);
  } else if (method == "Inspector.targetCrashed" && main) {
    CHROMIUM_LOG(2, "payment browser: chromium's page crashed");
    *result = kClosed;
    return false;
  }
  return true;
}

void ChromiumSession::Report(const std::string& url) {
  if (url.empty() || url == "about:blank" || url == last_reported_) return;
  last_reported_ = url;
  session_.Visit(url);
}

int ChromiumSession::BrowserGone() {
  int status = 0;
  if (!process_.Exited(3000, &status)) {
    CHROMIUM_LOG(2, "payment browser: chromium closed its pipe");
  } else if (status != 0) {
    CHROMIUM_LOG(2, "payment browser: chromium ended unexpectedly (%s)",
                 ChromiumProcess::DescribeStatus(status).c_str());
  } else {
    CHROMIUM_LOG(5, "payment browser: the buyer closed chromium");
  }
  return kClosed;
}

int64_t ChromiumSession::Send(const std::string& method, const Json::Value& params,
                              const std::string& session_id) {
  Json::Value message(Json::objectValue);
  const int64_t id = next_id_++;
  message["id"] = static_cast<Json::Int64>(id);
  message["method"] = method;
  message["params"] = params;
  if (!session_id.empty()) message["sessionId"] = session_id;
  if (!process_.Send(ToText(message), static_cast<int>(options_.reply_limit.count()))) return -1;
  return id;
}

bool ChromiumSession::Await(int64_t id, int64_t limit_ms, Json::Value* result) {
  if (id < 0) return false;
  const Clock::time_point until =
      std::min(deadline_, Clock::now() + std::chrono::milliseconds(limit_ms));
  for (;;) {
    const int64_t left = MsUntil(until);
    if (left <= 0 || closed_) return false;
    std::string text;
    const ChromiumProcess::Read read = process_.Receive(static_cast<int>(left), &text);
    if (read == ChromiumProcess::Read::kClosed) closed_ = true;
    Json::Value message;
    if (read != ChromiumProcess::Read::kMessage || !Parse(text, &message) || !message.isObject()) {
      continue;
    }
    // Read through a const view: the non-const operator[] would add an "id" to every event.
    const Json::Value& answer_id = static_cast<const Json::Value&>(message)["id"];
    if (answer_id.isIntegral() && answer_id.asInt64() == id) {
      if (result != nullptr) *result = message["result"];
      return !message.isMember("error");
    }
    if (pending_.size() < kMaxPending) pending_.push_back(std::move(message));
  }
}

ChromiumSession::Next ChromiumSession::NextMessage(int timeout_ms, Json::Value* message) {
  if (!pending_.empty()) {
    *message = std::move(pending_.front());
    pending_.pop_front();
    return Next::kMessage;
  }
  if (closed_) return Next::kClosed;
  std::string text;
  switch (process_.Receive(timeout_ms, &text)) {
    case ChromiumProcess::Read::kClosed:
      closed_ = true;
      return Next::kClosed;
    case ChromiumProcess::Read::kTimeout:
      return Next::kIdle;
    case ChromiumProcess::Read::kMessage:
      break;
  }
  return Parse(text, message) && message->isObject() ? Next::kMessage : Next::kIdle;
}

std::string ChromiumSession::Call(const std::string& method, const std::string& params_json,
                                  bool to_browser) {
  Json::Value params(Json::objectValue);
  if (!params_json.empty() && (!Parse(params_json, &params) || !params.isObject())) return "";
  Json::Value result;
  if (!Await(Send(method, params, to_browser ? "" : session_id_), options_.reply_limit.count(),
             &result)) {
    return "";
  }
  return ToText(result);
}

class ChromiumBrowserBackend : public BrowserAuthorization::Backend {
 public:
  explicit ChromiumBrowserBackend(ChromiumOptions options) : options_(std::move(options)) {}

  int Run(BrowserAuthorization& session, const std::string& /*browser_path*/,
          const std::string& url, const std::vector<std::string>& /*args*/) override {
    focus_wanted_ = false;
    ChromiumSession chromium(options_, session, focus_wanted_);
    return chromium.Run(url);
  }

  // Taken up by the running session within a tenth of a second.
  void Focus(BrowserAuthorization& /*session*/) override { focus_wanted_ = true; }

 private:
  const ChromiumOptions options_;
  std::atomic<bool> focus_wanted_{false};
};

}  // namespace

std::shared_ptr<BrowserAuthorization::Backend> CreateChromiumBrowserBackend(
    ChromiumOptions options) {
  return std::make_shared<ChromiumBrowserBackend>(std::move(options));
}

bool ChromiumInstalled(const std::string& executable) {
  return access(executable.c_str(), X_OK) == 0;
}

}  // namespace utilities
}  // namespace norbel
