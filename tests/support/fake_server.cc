#include "support/fake_server.h"

#include <curl/curl.h>
#include <httplib.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace vistrel_test {
namespace {

std::string Decode(std::string text) {
  std::replace(text.begin(), text.end(), '+', ' ');
  int length = 0;
  char* decoded = curl_easy_unescape(nullptr, text.c_str(), static_cast<int>(text.size()), &length);
  std::string result(decoded, static_cast<size_t>(length));
  curl_free(decoded);
  return result;
}

Fields ParseForm(const std::string& body) {
  Fields fields;
  std::stringstream pairs(body);
  for (std::string pair; std::getline(pairs, pair, '&');) {
    size_t eq = pair.find('=');
    fields.emplace_back(Decode(pair.substr(0, eq)),
                        eq == std::string::npos ? "" : Decode(pair.substr(eq + 1)));
  }
  return fields;
}

// Streams a generated body chunk by chunk; with `drop` the connection closes at half of it.
void SetGeneratedBody(const Reply& reply, httplib::Response* res) {
  uint64_t size = reply.generated_bytes;
  uint64_t stop_at = reply.drop_mid_body ? size / 2 : size;
  size_t chunk = reply.chunk_bytes > 0 ? reply.chunk_bytes : 64 * 1024;
  auto pause = reply.chunk_pause;
  auto provide = [stop_at, chunk, pause](size_t offset, size_t length, httplib::DataSink& sink) {
    if (offset >= stop_at) return false;  // closes the connection with the body cut
    if (offset > 0 && pause.count() > 0) std::this_thread::sleep_for(pause);
    size_t n = static_cast<size_t>(std::min<uint64_t>({chunk, length, stop_at - offset}));
    std::vector<char> data(n);
    for (size_t i = 0; i < n; ++i) data[i] = static_cast<char>(GeneratedByte(offset + i));
    return sink.write(data.data(), data.size());
  };
  if (reply.chunked) {
    res->set_chunked_content_provider(reply.content_type,
                                      [size, provide](size_t offset, httplib::DataSink& sink) {
                                        if (offset >= size) {
                                          sink.done();
                                          return true;
                                        }
                                        return provide(offset, SIZE_MAX, sink);
                                      });
  } else {
    res->set_content_provider(static_cast<size_t>(size), reply.content_type, provide);
  }
}

}  // namespace

unsigned char GeneratedByte(uint64_t offset) {
  uint64_t mixed = offset ^ (offset >> 8) ^ (offset >> 16) ^ (offset >> 24);
  return static_cast<unsigned char>(mixed * 31 + 7);
}

std::string RecordedRequest::Field(const std::string& name) const {
  for (const auto& [key, value] : form) {
    if (key == name) return value;
  }
  return std::string();
}

Reply Answer(const std::string& body, int status, const std::string& content_type) {
  Reply reply;
  reply.status = status;
  reply.body = body;
  reply.content_type = content_type;
  return reply;
}

Reply Redirect(int status, const std::string& location, const std::string& body) {
  Reply reply = Answer(body, status);
  reply.headers = {{"Location", location}};
  return reply;
}

std::string ShopOk(const std::string& response_json) {
  return "{\"error\": false, \"response\": " + response_json + "}";
}

std::string ShopError(const std::string& message) {
  return "{\"error\": true, \"response\": {\"errorMsg\": \"" + message + "\"}}";
}

FakeServer::FakeServer() : server_(std::make_unique<httplib::Server>()) {
  auto handle = [this](const char* method) {
    return [this, method](const httplib::Request& req, httplib::Response& res) {
      Handle(method, &req, &res);
    };
  };
  server_->Get(".*", handle("GET"));
  server_->Post(".*", handle("POST"));
  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("fake server cannot bind");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

FakeServer::~FakeServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string FakeServer::base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void FakeServer::Set(const std::string& path, Reply reply) {
  Set(path, [reply](const RecordedRequest&) { return reply; });
}

// A later route for a path replaces the earlier: Handle takes the last that matches.
void FakeServer::Set(const std::string& path, Handler handler) {
  std::lock_guard<std::mutex> guard(lock_);
  routes_.emplace_back(path, std::move(handler));
}

std::vector<RecordedRequest> FakeServer::requests() const {
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

std::vector<RecordedRequest> FakeServer::requests(const std::string& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<RecordedRequest> matching;
  for (const auto& r : requests_) {
    if (r.path == path) matching.push_back(r);
  }
  return matching;
}

void FakeServer::ClearRequests() {
  std::lock_guard<std::mutex> guard(lock_);
  requests_.clear();
}

void FakeServer::Handle(const std::string& method, const void* request, void* response) {
  const auto& req = *static_cast<const httplib::Request*>(request);
  auto& res = *static_cast<httplib::Response*>(response);

  RecordedRequest recorded;
  recorded.method = method;
  recorded.path = req.path;
  size_t q = req.target.find('?');
  if (q != std::string::npos) recorded.query = req.target.substr(q + 1);
  recorded.body = req.body;
  if (req.get_header_value("Content-Type").find("application/x-www-form-urlencoded") == 0) {
    recorded.form = ParseForm(req.body);
  }

  Handler handler;
  {
    std::lock_guard<std::mutex> guard(lock_);
    requests_.push_back(recorded);
    for (const auto& route : routes_) {
      if (route.first == req.path) handler = route.second;
    }
  }
  if (!handler) {
    res.status = 404;
    res.set_content("not found", "text/plain");
    return;
  }
  Reply reply = handler(recorded);
  if (reply.delay.count() > 0) std::this_thread::sleep_for(reply.delay);
  res.status = reply.status;
  for (const auto& [name, value] : reply.headers) res.set_header(name, value);
  if (reply.generated_bytes > 0) {
    SetGeneratedBody(reply, &res);
    return;
  }
  if (reply.drop_mid_body) {
    std::string body = reply.body;
    res.set_content_provider(body.size() * 2 + 2, reply.content_type,
                             [body](size_t offset, size_t, httplib::DataSink& sink) {
                               // Past the first write the connection closes, half sent.
                               return offset == 0 && sink.write(body.data(), body.size());
                             });
    return;
  }
  res.set_content(reply.body, reply.content_type);
}

}  // namespace vistrel_test
