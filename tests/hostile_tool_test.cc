// The vistrel tool against a shop that answers with JSON of the wrong kind, and on a device
// whose cart file cannot be read: it reports in one line and exits with a code from its table,
// never aborts.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/shop_fixture.h"

namespace {

using vistrel_test::Answer;
using vistrel_test::ShopOk;

struct Outcome {
  int exit_code;  // -1 when the tool did not exit by itself (it aborted)
  std::string out;
  std::string err;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class HostileToolTest : public vistrel_test::ShopTest {
 protected:
  // Runs the tool on this test's device (the fixture's variables name it and the shop).
  Outcome Vistrel(const std::vector<std::string>& args, const std::string& input = "") {
    std::string command = "printf '%s' '" + input + "' | " VISTREL_CLI;
    for (const std::string& arg : args) command += " '" + arg + "'";
    const std::string out = work_dir_ + "/stdout", err = work_dir_ + "/stderr";
    const int status = std::system((command + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
  }
};

TEST_F(HostileToolTest, AnswersOfTheWrongKindAreReportedInOneLine) {
  const std::vector<std::pair<std::string, std::pair<std::string, std::string>>> answers = {
      {"error as text", {R"({"error": "yes"})", ShopOk("[]")}},
      {"response as text", {R"({"error": false, "response": "text"})", ShopOk("[]")}},
      {"title as an array",
       {ShopOk(R"({"sessionID": "s"})"), ShopOk(R"([{"orderPositionTitle": ["a"]}])")}},
      {"id of 1e300", {ShopOk(R"({"sessionID": "s"})"), ShopOk(R"([{"orderPositionID": 1e300}])")}},
  };
  for (const auto& [what, replies] : answers) {
    SCOPED_TRACE(what);
    server_.Set("/ws/shop/login", Answer(replies.first));
    server_.Set("/ws/shop/getUserEbook", Answer(replies.second));
    const Outcome login = Vistrel({"login", "a@b.c", "--password-stdin"}, "pw");
    EXPECT_EQ(login.exit_code, 1) << login.err;
    EXPECT_EQ(login.err.rfind("vistrel: login: the shop sent a value of the wrong JSON kind (", 0),
              0u)
        << login.err;
    EXPECT_EQ(login.err.find('\n'), login.err.size() - 1) << "not one line: " << login.err;
  }
}

TEST_F(HostileToolTest, AnUnreadableCartFileIsKeptAsideAndTheCommandGoesOn) {
  const std::string broken = R"({"cartPositions": [{"cartPositionID": [1]}]})";
  WriteDeviceFile("/mnt/ext1/system/config/vistrel_cart", broken);
  const Outcome list = Vistrel({"cart", "list"});
  EXPECT_EQ(list.exit_code, 0) << list.err;
  EXPECT_NE(list.out.find("0 books"), std::string::npos) << list.out;
  EXPECT_NE(list.err.find("the cart file could not be read"), std::string::npos) << list.err;

  // Kept beside it, reported in the device log, and an empty cart in its place.
  std::vector<std::string> kept;
  for (const auto& entry :
       std::filesystem::directory_iterator(HostPath("/mnt/ext1/system/config"))) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("vistrel_cart.unreadable-", 0) == 0) kept.push_back(entry.path().string());
  }
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(ReadFile(kept[0]), broken);
  bool logged = false;
  for (const std::string& line : LogLines())
    logged |= line.find("unreadable cart file") != std::string::npos;
  EXPECT_TRUE(logged);
  EXPECT_NE(ReadDeviceFile("/mnt/ext1/system/config/vistrel_cart").find("\"cartPositions\" : []"),
            std::string::npos);

  // The next command finds nothing wrong.
  const Outcome again = Vistrel({"cart", "list"});
  EXPECT_EQ(again.exit_code, 0);
  EXPECT_EQ(again.err, "");
}

}  // namespace
