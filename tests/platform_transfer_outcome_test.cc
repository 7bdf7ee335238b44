// The request runner's record of each transfer: what a client shows when a call failed.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "nbutils/http_request.h"
#include "support/fake_server.h"

namespace {

using norbel::utilities::HttpRequest;
using norbel::utilities::HttpRequestRunner;
using norbel::utilities::LastTransferOutcome;
using norbel::utilities::TransferOutcome;

// A loopback port with nobody listening: bound, then closed again.
int ClosedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), length));
  EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
  close(fd);
  return ntohs(address.sin_port);
}

int Perform(const std::string& method, const std::string& url) {
  HttpRequestRunner runner;
  long status = 0;
  std::vector<char> body;
  return runner.PerformRequest(HttpRequest(method, url), &status, &body, 30);
}

TEST(TransferOutcomeTest, EachTransferIsRecordedWithHowItEnded) {
  vistrel_test::FakeServer server;
  server.Set("/ok", vistrel_test::Answer("{}"));
  server.Set("/broken", vistrel_test::Answer("oops", 500));
  vistrel_test::Reply slow = vistrel_test::Answer("{}");
  slow.delay = std::chrono::milliseconds(1000);
  server.Set("/slow", slow);
  std::vector<TransferOutcome> seen;
  norbel::utilities::SetTransferObserver(
      [&seen](const TransferOutcome& outcome) { seen.push_back(outcome); });

  EXPECT_EQ(0, Perform("POST", server.base_url() + "/ok"));
  EXPECT_EQ(0, Perform("GET", server.base_url() + "/broken"));
  const std::string refused_url = "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/x";
  EXPECT_NE(0, Perform("POST", refused_url));
  norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(200));
  EXPECT_NE(0, Perform("GET", server.base_url() + "/slow"));
  norbel::utilities::testing::SetRequestTimeLimitOverride(std::chrono::milliseconds(0));
  norbel::utilities::SetTransferObserver(nullptr);
  EXPECT_EQ(0, Perform("GET", server.base_url() + "/ok"));  // no longer observed

  ASSERT_EQ(4u, seen.size());
  EXPECT_EQ("POST", seen[0].method);
  EXPECT_EQ(server.base_url() + "/ok", seen[0].url);
  EXPECT_TRUE(seen[0].ok());
  EXPECT_EQ("200", seen[0].Describe());

  EXPECT_FALSE(seen[1].ok());
  EXPECT_EQ(0, seen[1].curl_code);
  EXPECT_EQ("HTTP status 500", seen[1].Describe());

  EXPECT_EQ(refused_url, seen[2].url);
  EXPECT_EQ("connection refused", seen[2].error_kind);
  EXPECT_NE(std::string::npos, seen[2].Describe().find("connection refused ("))
      << seen[2].Describe();

  EXPECT_EQ("timeout", seen[3].error_kind);
  EXPECT_GE(seen[3].elapsed_ms, 150);
  EXPECT_LT(seen[3].elapsed_ms, 900);

  const TransferOutcome last = LastTransferOutcome();
  EXPECT_EQ("GET", last.method);
  EXPECT_TRUE(last.ok());
}

}  // namespace
