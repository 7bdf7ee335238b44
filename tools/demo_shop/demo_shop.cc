#include "demo_shop.h"

#include <httplib.h>
#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdio>
#include <functional>

#include "book_files.h"
#include "demo_catalog.h"
#include "demo_opds.h"
#include "payment_pages.h"
#include "shop_service.h"

namespace vistrel_demo {

namespace {

constexpr size_t kFileChunk = 1024;

std::string HtmlPage(const std::string& title, const std::string& text) {
  return "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + title +
         "</title></head>\n<body><h1>" + title + "</h1><p>" + text + "</p></body></html>\n";
}

std::string InjectedShopError() {
  return "{\"error\":true,\"response\":{\"errorMsg\":\"The shop is having a bad day (injected "
         "failure)\"}}";
}

int64_t ToId(const std::string& text) {
  if (text.empty() || text.size() > 18 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return -1;
  }
  return std::stoll(text);
}

}  // namespace

DemoShop::DemoShop() : server_(new httplib::Server) {
  for (const CatalogBook& book : DemoCatalog()) book_files_[book.ean] = MakeBookFile(book);
  standby_bmp_ = MakeStandbyBmp(200, 100);
}

DemoShop::~DemoShop() { Stop(); }

bool DemoShop::Start(int port) {
  if (port == 0) {
    port_ = server_->bind_to_any_port("127.0.0.1");
  } else {
    port_ = server_->bind_to_port("127.0.0.1", port) ? port : -1;
  }
  if (port_ <= 0) {
    port_ = 0;
    return false;
  }
  {
    std::lock_guard<std::mutex> hold(lock_);
    service_.reset(new ShopService(base_url(), kClientId));
    service_->set_link_delay(link_delay_);
  }
  InstallRoutes();
  // The socket listens already; connections wait in its backlog until the loop accepts them.
  thread_ = std::thread([this] {
    server_->listen_after_bind();
    loop_ended_ = true;
  });
  // Stop() can end the loop only once it runs, so wait for it here.
  while (!server_->is_running() && !loop_ended_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void DemoShop::Stop() {
  if (thread_.joinable()) {
    server_->stop();
    thread_.join();
  }
}

std::string DemoShop::base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::string DemoShop::switchboard_url() const { return base_url() + "/norbel/config/"; }

std::string DemoShop::catalog_url() const { return base_url() + "/opds/"; }

std::string DemoShop::catalog2_url() const { return base_url() + "/opds2/"; }

void DemoShop::SetAnswerDelay(std::chrono::milliseconds delay) {
  std::lock_guard<std::mutex> hold(lock_);
  answer_delay_ = delay;
}

void DemoShop::SetFailure(const std::string& path_prefix, Failure failure) {
  std::lock_guard<std::mutex> hold(lock_);
  if (failure == Failure::kNone) {
    failures_.erase(path_prefix);
  } else {
    failures_[path_prefix] = failure;
  }
}

void DemoShop::SetLinkDelay(std::chrono::milliseconds delay) {
  std::lock_guard<std::mutex> hold(lock_);
  if (service_) service_->set_link_delay(delay);
  link_delay_ = delay;
}

void DemoShop::SetFileChunkDelay(std::chrono::milliseconds delay) {
  std::lock_guard<std::mutex> hold(lock_);
  file_chunk_delay_ = delay;
}

void DemoShop::SetPaymentStyle(PaymentStyle style) {
  std::lock_guard<std::mutex> hold(lock_);
  payment_style_ = style;
}

void DemoShop::SetCancelPayment(bool cancel) {
  std::lock_guard<std::mutex> hold(lock_);
  cancel_payment_ = cancel;
}

std::string DemoShop::last_serial() const {
  std::lock_guard<std::mutex> hold(lock_);
  return last_serial_;
}

std::string DemoShop::BookFile(const std::string& ean) const {
  auto it = book_files_.find(ean);
  return it == book_files_.end() ? std::string() : it->second;
}

Failure DemoShop::FailureFor(const std::string& path) const {
  std::lock_guard<std::mutex> hold(lock_);
  for (const auto& rule : failures_) {
    if (path.compare(0, rule.first.size(), rule.first) == 0) return rule.second;
  }
  return Failure::kNone;
}

bool DemoShop::ApplyMisbehaviour(const httplib::Request& request, httplib::Response& response) {
  std::chrono::milliseconds delay;
  {
    std::lock_guard<std::mutex> hold(lock_);
    delay = answer_delay_;
  }
  if (delay.count() > 0) std::this_thread::sleep_for(delay);
  switch (FailureFor(request.path)) {
    case Failure::kHttp500:
      response.status = 500;
      response.set_content("Internal Server Error (injected failure)\n", "text/plain");
      return true;
    case Failure::kShopError:
      response.set_content(InjectedShopError(), "application/json");
      return true;
    default:
      return false;  // kDrop is carried out by Reply
  }
}

void DemoShop::Reply(const httplib::Request& request, httplib::Response& response,
                     const std::string& body, const std::string& content_type) {
  const bool drop = FailureFor(request.path) == Failure::kDrop;
  std::chrono::milliseconds chunk_delay{0};
  if (request.path.compare(0, 7, "/files/") == 0) {
    std::lock_guard<std::mutex> hold(lock_);
    chunk_delay = file_chunk_delay_;
    // A file host names each version of a file, so that a client can resume a download.
    char etag[32];
    std::snprintf(etag, sizeof(etag), "\"%016zx\"", std::hash<std::string>()(body));
    response.set_header("ETag", etag);
    response.set_header("Last-Modified", "Mon, 02 Nov 2026 09:00:00 GMT");
  }
  if (!drop && chunk_delay.count() == 0) {
    response.set_content(body, content_type.c_str());
    return;
  }
  // Announce the whole length, then send in pieces; a dropped answer stops half-way, which
  // closes the connection under the client.
  auto shared = std::make_shared<const std::string>(body);
  response.set_content_provider(
      body.size(), content_type.c_str(),
      [shared, drop, chunk_delay](size_t offset, size_t length, httplib::DataSink& sink) {
        if (drop && offset >= shared->size() / 2) return false;
        size_t piece = std::min(length, kFileChunk);
        if (drop) piece = std::min(piece, shared->size() / 2 - offset);
        if (chunk_delay.count() > 0 && offset > 0) std::this_thread::sleep_for(chunk_delay);
        return sink.write(shared->data() + offset, piece);
      });
}

void DemoShop::InstallRoutes() {
  using httplib::Request;
  using httplib::Response;
  server_->set_pre_routing_handler([this](const Request& request, Response& response) {
    return ApplyMisbehaviour(request, response) ? httplib::Server::HandlerResponse::Handled
                                                : httplib::Server::HandlerResponse::Unhandled;
  });

  server_->Get(R"(/norbel/config/(.*))", [this](const Request& request, Response& response) {
    {
      std::lock_guard<std::mutex> hold(lock_);
      last_serial_ = request.matches[1];
    }
    Reply(request, response, Config(), "application/json");
  });

  server_->Post(R"(/ws/shop/([A-Za-z]+))", [this](const Request& request, Response& response) {
    bool known = false;
    std::string answer;
    {
      std::lock_guard<std::mutex> hold(lock_);
      answer = service_->Call(request.matches[1], request.params, &known);
    }
    if (!known) response.status = 404;
    Reply(request, response, answer, "application/json");
  });

  server_->Get("/ws/filter/languages", [this](const Request& request, Response& response) {
    Reply(request, response, Languages(), "application/xml");
  });

  server_->Get(R"(/opds2?(/.*)?)", [this](const Request& request, Response& response) {
    std::map<std::string, std::string> params;
    for (const auto& [name, value] : request.params) params.emplace(name, value);
    const OpdsAnswer answer = CatalogAnswer(base_url(), request.path, params);
    response.status = answer.status;
    Reply(request, response, answer.body, answer.content_type);
  });

  server_->Get(R"(/pay/start/(\d+))", [this](const Request& request, Response& response) {
    std::string next;
    {
      std::lock_guard<std::mutex> hold(lock_);
      const int64_t order_id = ToId(request.matches[1]);
      if (payment_style_ == PaymentStyle::kPage) {
        const std::string token = service_->PaymentToken(order_id);
        if (!token.empty()) next = base_url() + "/pay/checkout?token=" + token;
      } else {
        next = service_->PaymentStart(order_id, cancel_payment_ || request.has_param("cancel"));
      }
    }
    if (next.empty()) {
      response.status = 404;
      response.set_content(HtmlPage("No such payment", "This order is not waiting for payment."),
                           "text/html");
      return;
    }
    response.set_redirect(next, 302);
  });

  InstallPaymentPages();

  server_->Get("/pay/gateway", [this](const Request& request, Response& response) {
    std::string next;
    {
      std::lock_guard<std::mutex> hold(lock_);
      next = service_->PaymentGateway(ToId(request.get_param_value("order")),
                                      cancel_payment_ || request.has_param("cancel"));
    }
    if (next.empty()) {
      response.status = 404;
      response.set_content(HtmlPage("No such payment", "Unknown order."), "text/html");
      return;
    }
    response.set_redirect(next, 302);
  });

  server_->Get("/pay/paypal", [](const Request&, Response& response) {
    response.set_content(HtmlPage("Payment approved", "Thank you. You may return to the shop now."),
                         "text/html");
  });
  server_->Get("/pay/back", [](const Request&, Response& response) {
    response.set_content(HtmlPage("Payment cancelled", "Nothing was charged."), "text/html");
  });

  server_->Get(R"(/files/(\d+)\.([a-z0-9]+))", [this](const Request& request, Response& response) {
    const CatalogBook* book = FindCatalogBook(request.matches[1]);
    if (book == nullptr || book->extension != request.matches[2].str()) {
      response.status = 404;
      response.set_content(HtmlPage("Not found", "No such file."), "text/html");
      return;
    }
    Reply(request, response, book_files_.at(book->ean), book->content_type);
  });

  server_->Get("/static/standby.bmp", [this](const Request& request, Response& response) {
    Reply(request, response, standby_bmp_, "image/bmp");
  });
}

// The real payment pages: checkout (GET), the form's post, processing, and the step that sends
// the buyer back to the shop.
void DemoShop::InstallPaymentPages() {
  using httplib::Request;
  using httplib::Response;
  auto unknown = [](Response& response) {
    response.status = 404;
    response.set_content(HtmlPage("No such payment", "This payment is unknown or finished."),
                         "text/html");
  };
  server_->Get("/pay/checkout", [this, unknown](const Request& request, Response& response) {
    ShopService::PaymentView payment;
    std::lock_guard<std::mutex> hold(lock_);
    if (!service_->FindPayment(request.get_param_value("token"), &payment))
      return unknown(response);
    response.set_content(CheckoutPage(payment, kShopName, ""), "text/html; charset=utf-8");
  });
  server_->Post("/pay/authorize", [this, unknown](const Request& request, Response& response) {
    ShopService::PaymentView payment;
    std::lock_guard<std::mutex> hold(lock_);
    if (!service_->FindPayment(request.get_param_value("token"), &payment))
      return unknown(response);
    if (!PlausibleEmail(request.get_param_value("email"))) {
      response.status = 400;
      response.set_content(CheckoutPage(payment, kShopName, "Please enter your e-mail address."),
                           "text/html; charset=utf-8");
      return;
    }
    response.set_redirect(base_url() + "/pay/processing?token=" + payment.token, 303);
  });
  server_->Get("/pay/processing", [this, unknown](const Request& request, Response& response) {
    ShopService::PaymentView payment;
    std::lock_guard<std::mutex> hold(lock_);
    if (!service_->FindPayment(request.get_param_value("token"), &payment))
      return unknown(response);
    response.set_content(ProcessingPage(payment.token, 300), "text/html; charset=utf-8");
  });
  server_->Get("/pay/complete", [this, unknown](const Request& request, Response& response) {
    std::lock_guard<std::mutex> hold(lock_);
    const std::string next =
        service_->PaymentReturn(request.get_param_value("token"), cancel_payment_);
    if (next.empty()) return unknown(response);
    response.set_redirect(next, 302);
  });
}

std::string DemoShop::Config() const {
  const std::string base = base_url();
  Json::Value config(Json::objectValue);
  config["clientID"] = kClientId;
  config["clientName"] = kShopName;
  config["clientAddress"] = "Vistrel Demo Shop, 1 Loopback Lane, 127001 Localhost";
  config["clientOPDSCatalogUrl"] = catalog_url();
  config["clientShopWebserviceUrl"] = base + "/ws/shop";
  config["clientImprint"] = "Vistrel Demo Shop is a demonstration; no real books are sold.";
  config["clientTaC"] = "Terms: every book in this shop is free of charge and made up.";
  config["clientPaymentInfo"] = "Payment through an emulated PayPal; nothing is charged.";
  config["clientInfo"] = "Four short books to try the purchase from end to end.";
  config["clientHelp"] = "Register with any e-mail address and password.";
  config["clientStandbyImage"] = base + "/static/standby.bmp";
  config["clientSalesPermission"] = "granted";
  config["clientPrivacyPolicy"] = "Everything is kept in memory and forgotten at exit.";
  config["clientRevocation"] = "You may revoke a purchase by stopping the demo shop.";
  Json::StreamWriterBuilder builder;
  return Json::writeString(builder, config);
}

std::string DemoShop::Languages() const {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<languages>\n"
         "  <language code=\"de\" name=\"Deutsch\"/>\n"
         "  <language code=\"en\" name=\"English\"/>\n"
         "  <language code=\"fr\" name=\"Fran\xc3\xa7"
         "ais\"/>\n"
         "</languages>\n";
}

}  // namespace vistrel_demo
