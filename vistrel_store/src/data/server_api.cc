#include "vistrel_store/server_api.h"

#include <json/reader.h>

#include <exception>
#include <sstream>

#include "book_list.h"
#include "check_log.h"
#include "language_parser.h"
#include "memory_budget.h"
#include "nbutils/expat_parser.h"
#include "nbutils/http_request.h"

namespace norbel {
namespace vistrel {
namespace {

using utilities::HttpRequest;
using utilities::HttpRequestRunner;
using Result = ServerApi::Result;

// Every call gives the runner this many seconds.
constexpr unsigned int kTimeLimit = 30;

// Where a call's runner check is logged from.
struct CheckSite {
  int line;
  const char* function;
  const char* returned;
};

// The answer as JSON; the parser's verdict is ignored, so anything that is not JSON reads as
// null, or as much as the parser had read before it stopped.
Json::Value ParseJson(const std::vector<char>& body) {
  Json::Value value;
  if (body.empty()) return value;
  Json::Reader reader;
  try {
    reader.parse(body.data(), body.data() + body.size(), value, true);
  } catch (const std::exception&) {
    // The reader throws where nesting gets too deep. What it had filled in before stays, as
    // for any other fault: a refusal in front of the deep part stays a refusal, and a list in
    // front of it stays a list.
  }
  return value;
}

// What the body of a 200 answer is read as, and so what building it costs.
enum class Format { kJson, kXml };

bool Affordable(const std::vector<char>& body, Format format) {
  const int64_t cost = format == Format::kJson ? JsonCost(body.data(), body.size())
                                               : XmlCost(body.data(), body.size());
  return cost <= kMaxDocumentCost;
}

Result MakeErrorResult(const Json::Value& answer) {
  return Result{ServerApi::kFailed, answer["response"]["errorMsg"].asString()};
}

// Runs `request`. A runner failure is logged at `site`; a status other than 200 fails
// silently. On 200 the body is handed back for the caller to judge. A body that would cost
// more memory to read than any answer may is a failed transfer, as one beyond the runner's
// byte cap is.
Result Perform(const HttpRequest& request, const CheckSite& site, Format format,
               std::vector<char>* body) {
  HttpRequestRunner runner;
  long status = 0;
  int err = runner.PerformRequest(request, &status, body, kTimeLimit);
  if (err == 0 && status == 200 && !Affordable(*body, format)) {
    err = -1;
    std::vector<char>().swap(*body);
  }
  if (err != 0) {
    LogCheckFailed(kServerApiSource, site.line, site.function, "0 == err", site.returned);
    return Result(ServerApi::kFailed);
  }
  if (status != 200) return Result(ServerApi::kFailed);
  return Result(ServerApi::kOk);
}

// The shop's request frame: POST, then judge transfer, status and the answer's "error".
// On kOk `answer` holds the whole parsed answer.
Result ShopFrame(const HttpRequest& request, const CheckSite& site, Json::Value* answer) {
  std::vector<char> body;
  Result result = Perform(request, site, Format::kJson, &body);
  if (result.code_ != ServerApi::kOk) return result;
  *answer = ParseJson(body);
  const Json::Value& parsed = *answer;
  if (parsed["error"].asBool()) return MakeErrorResult(parsed);
  return Result(ServerApi::kOk);
}

// A shop call whose "response" fills a record through its FromJson; on any failure the
// record stays default-constructed.
template <typename Record>
std::tuple<Result, Record> RecordCall(const HttpRequest& request, const CheckSite& site) {
  Json::Value answer;
  Result result = ShopFrame(request, site, &answer);
  Record record;
  if (result.code_ == ServerApi::kOk) record.FromJson(answer["response"]);
  return std::make_tuple(std::move(result), std::move(record));
}

std::string Decimal(int64_t value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace

ServerApi::ServerApi() = default;

ServerApi::~ServerApi() = default;

ServerApi::Result ServerApi::LogIn(const std::string& email, const std::string& password) {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/login");
  request.AddPostParam("username", email);
  request.AddPostParam("password", password);
  request.AddPostParam("clientID", config_.clientID);
  Json::Value answer;
  Result result = ShopFrame(
      request,
      {__LINE__,
       "Result norbel::vistrel::ServerApi::LogIn(const std::string &, const std::string &)",
       "Result(kFailed)"},
      &answer);
  if (result.code_ != kOk) return result;
  const Json::Value& response = answer["response"];
  session_id_ = response["sessionID"].asString();
  return result;
}

ServerApi::Result ServerApi::LogOut() {
  if (session_id_.empty()) return Result(kOk);
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/logout");
  request.AddPostParam("sessionID", session_id_);
  request.AddPostParam("clientID", config_.clientID);
  Json::Value answer;
  Result result = ShopFrame(
      request, {__LINE__, "Result norbel::vistrel::ServerApi::LogOut()", "Result(kFailed)"},
      &answer);
  if (result.code_ == kOk) session_id_.clear();
  return result;
}

ServerApi::Result ServerApi::Register(const std::string& email, const std::string& password) {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/registerUser");
  request.AddPostParam("email", email);
  request.AddPostParam("password", password);
  request.AddPostParam("clientID", config_.clientID);
  Json::Value answer;
  Result result = ShopFrame(request,
                            {__LINE__,
                             "Result norbel::vistrel::ServerApi::Register(const std::string &, "
                             "const std::string &)",
                             "Result(kFailed)"},
                            &answer);
  if (result.code_ != kOk) return result;
  const Json::Value& response = answer["response"];
  session_id_ = response["sessionID"].asString();
  return result;
}

std::tuple<ServerApi::Result, SwitchboardConfig> ServerApi::CallSwitchboard(
    const std::string& url) {
  HttpRequest request("GET", url);
  std::vector<char> body;
  Result result = Perform(request,
                          {__LINE__,
                           "std::tuple<Result, SwitchboardConfig> "
                           "norbel::vistrel::ServerApi::CallSwitchboard(const std::string &)",
                           "make_tuple(Result(kFailed), SwitchboardConfig())"},
                          Format::kJson, &body);
  if (result.code_ != kOk) return std::make_tuple(result, SwitchboardConfig());
  return std::make_tuple(Result(kOk), SwitchboardConfig::Parse(ParseJson(body)));
}

std::tuple<ServerApi::Result, std::vector<Language>> ServerApi::GetLanguages() {
  std::vector<Language> result;
  std::string url = config_.clientShopWebserviceUrl;
  if (url.empty()) return std::make_tuple(Result(kFailed), result);
  size_t slash = url.rfind('/');
  if (slash != std::string::npos) url.erase(slash + 1);
  url += "filter/languages";

  HttpRequest request("GET", url);
  std::vector<char> body;
  Result status = Perform(request,
                          {163,
                           "std::tuple<Result, std::vector<Language>> "
                           "norbel::vistrel::ServerApi::GetLanguages()",
                           "make_tuple(Result(kFailed), result)"},
                          Format::kXml, &body);
  if (status.code_ != kOk) return std::make_tuple(status, result);

  LanguageParser handler;
  utilities::ExpatParser parser(&handler);
  parser.init("utf-8");
  // Whatever was read before an XML error is kept.
  parser.parse(body.empty() ? nullptr : body.data(), static_cast<unsigned int>(body.size()));
  return std::make_tuple(Result(kOk), handler.TakeLanguages());
}

std::tuple<ServerApi::Result, Cart> ServerApi::GetCart() {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/getCart");
  request.AddPostParam("sessionID", session_id_);
  request.AddPostParam("clientID", config_.clientID);
  return RecordCall<Cart>(request,
                          {270, "std::tuple<Result, Cart> norbel::vistrel::ServerApi::GetCart()",
                           "make_tuple(Result(kFailed), cart)"});
}

ServerApi::Result ServerApi::AddToCart(const std::string& ean, int quantity) {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/addToCart");
  request.AddPostParam("sessionID", session_id_);
  request.AddPostParam("clientID", config_.clientID);
  request.AddPostParam("ean", ean);
  request.AddPostParam("quantity", quantity);
  Json::Value answer;
  return ShopFrame(request,
                   {296, "Result norbel::vistrel::ServerApi::AddToCart(const std::string &, int)",
                    "Result(kFailed)"},
                   &answer);
}

std::tuple<ServerApi::Result, Order> ServerApi::PrepareOrder(int64_t cart_id) {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/prepareEbookOrder");
  request.AddPostParam("sessionID", session_id_);
  request.AddPostParam("cartID", Decimal(cart_id));
  request.AddPostParam("clientID", config_.clientID);
  return RecordCall<Order>(
      request, {323, "std::tuple<Result, Order> norbel::vistrel::ServerApi::PrepareOrder(int64_t)",
                "make_tuple(Result(kFailed), order)"});
}

std::tuple<ServerApi::Result, ChekResult> ServerApi::CheckOrder(int64_t order_id) {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/checkOrder");
  request.AddPostParam("orderID", Decimal(order_id));
  request.AddPostParam("clientID", config_.clientID);
  return RecordCall<ChekResult>(
      request,
      {378, "std::tuple<Result, ChekResult> norbel::vistrel::ServerApi::CheckOrder(int64_t)",
       "make_tuple(Result(kFailed), check_result)"});
}

std::tuple<ServerApi::Result, Order> ServerApi::CommitOrder(int64_t order_id) {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/commitOrder");
  request.AddPostParam("sessionID", session_id_);
  request.AddPostParam("orderID", Decimal(order_id));
  request.AddPostParam("clientID", config_.clientID);
  request.AddPostParam("webpage", VISTREL_SHOP_WEBPAGE);
  return RecordCall<Order>(
      request, {408, "std::tuple<Result, Order> norbel::vistrel::ServerApi::CommitOrder(int64_t)",
                "make_tuple(Result(kFailed), order)"});
}

std::tuple<ServerApi::Result, std::vector<Book>> ServerApi::GetUserEbook() {
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/getUserEbook");
  request.AddPostParam("sessionID", session_id_);
  request.AddPostParam("clientID", config_.clientID);
  Json::Value answer;
  Result result = ShopFrame(request,
                            {444,
                             "std::tuple<Result, std::vector<Book>> "
                             "norbel::vistrel::ServerApi::GetUserEbook()",
                             "make_tuple(Result(kFailed), books)"},
                            &answer);
  if (result.code_ != kOk) return std::make_tuple(result, std::vector<Book>());
  std::vector<Book> books;
  AppendBooks(answer["response"], &books);
  return std::make_tuple(result, std::move(books));
}

// The payer id is taken by value: that is how the interface has always declared it.
ServerApi::Result ServerApi::ConfirmPayPal(const std::string& token,
                                           const std::string payer_id) {  // NOLINT
  HttpRequest request("POST", config_.clientShopWebserviceUrl + "/confirmPayPal");
  request.AddPostParam("token", token);
  request.AddPostParam("payerID", payer_id);
  request.AddPostParam("clientID", config_.clientID);
  Json::Value answer;
  return ShopFrame(request,
                   {469,
                    "Result norbel::vistrel::ServerApi::ConfirmPayPal(const std::string &, const "
                    "std::string)",
                    "Result(kFailed)"},
                   &answer);
}

}  // namespace vistrel
}  // namespace norbel
