// The vistrel tool as a client people rely on: what it says when the shop is down, slow,
// failing or refusing; passwords and confirmations on a terminal; a paid order recovered in a
// later process; its configuration file; its manual page and completion. Each run is a
// separate process, spawned (not forked: the demo shop's threads run in this process).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "demo_catalog.h"
#include "demo_shop.h"
#include "support/device_fixture.h"

extern char** environ;

namespace {

using vistrel_demo::DemoCatalog;
using vistrel_demo::DemoShop;
using vistrel_demo::Failure;

struct Outcome {
  int exit_code = -1;
  std::string out;
  std::string err;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class VistrelClientTest : public vistrel_test::DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    xdg_ = work_dir_ + "/xdg";
    mkdir(xdg_.c_str(), 0700);
    shop_.SetLinkDelay(std::chrono::milliseconds(0));
    ASSERT_TRUE(shop_.Start(0));
  }

  // The environment of a run: this process's, without the host emulation's variables (the
  // tool gets them from its options), with the test's own configuration folder and `extra`.
  std::vector<std::string> Environment(const std::map<std::string, std::string>& extra) const {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      if (std::strncmp(*entry, "VISTREL_", 8) != 0 &&
          std::strncmp(*entry, "XDG_CONFIG_HOME=", 16) != 0) {
        env.push_back(*entry);
      }
    }
    env.push_back("XDG_CONFIG_HOME=" + xdg_);
    for (const auto& [name, value] : extra) {
      std::string variable = name;
      variable += '=';
      variable += value;
      env.push_back(std::move(variable));
    }
    return env;
  }

  // Spawns the tool with `args`; its stdin, stdout and stderr are `fds` (-1: files of the
  // test, stdin holding `input`). Returns its pid.
  pid_t Spawn(std::vector<std::string> args, const std::map<std::string, std::string>& env,
              const std::string& input, int terminal) {
    args.insert(args.begin(), VISTREL_CLI);
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    std::vector<std::string> variables = Environment(env);
    std::vector<char*> envp;
    envp.reserve(variables.size() + 1);
    for (std::string& variable : variables) envp.push_back(&variable[0]);
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (terminal >= 0) {
      for (int fd = 0; fd < 3; ++fd) posix_spawn_file_actions_adddup2(&actions, terminal, fd);
    } else {
      std::ofstream(work_dir_ + "/stdin", std::ios::binary) << input;
      posix_spawn_file_actions_addopen(&actions, 0, (work_dir_ + "/stdin").c_str(), O_RDONLY, 0);
      posix_spawn_file_actions_addopen(&actions, 1, (work_dir_ + "/stdout").c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
      posix_spawn_file_actions_addopen(&actions, 2, (work_dir_ + "/stderr").c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return spawned == 0 ? pid : -1;
  }

  static int Wait(pid_t pid) {
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // The tool with `args` (the device and the shop given first), stdin holding `input`.
  Outcome Run(std::vector<std::string> args, const std::string& input = "",
              const std::map<std::string, std::string>& env = {}) {
    Outcome outcome;
    outcome.exit_code = Wait(Spawn(std::move(args), env, input, -1));
    outcome.out = ReadFile(work_dir_ + "/stdout");
    outcome.err = ReadFile(work_dir_ + "/stderr");
    return outcome;
  }
  Outcome Vistrel(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {"--device-root", device_root_, "--switchboard-url",
                               shop_.switchboard_url(), "--log-file", log_file_});
    return Run(args, input);
  }

  // The tool on a pseudo-terminal: answers each prompt of `dialogue` (prompt text, answer
  // line) in turn and returns everything the terminal showed.
  Outcome OnTerminal(std::vector<std::string> args,
                     const std::vector<std::pair<std::string, std::string>>& dialogue) {
    args.insert(args.begin(), {"--device-root", device_root_, "--switchboard-url",
                               shop_.switchboard_url(), "--log-file", log_file_});
    int master = -1, slave = -1;
    Outcome outcome;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return outcome;
    const pid_t pid = Spawn(args, {}, "", slave);
    close(slave);
    size_t next = 0, seen = 0;
    for (;;) {
      pollfd ready = {master, POLLIN, 0};
      if (poll(&ready, 1, 20000) <= 0) break;  // a prompt that never came fails below
      char buffer[4096];
      const ssize_t n = read(master, buffer, sizeof buffer);
      if (n <= 0) break;  // EIO: the tool has ended
      outcome.out.append(buffer, static_cast<size_t>(n));
      if (next < dialogue.size() &&
          outcome.out.find(dialogue[next].first, seen) != std::string::npos) {
        seen = outcome.out.size();
        const std::string line = dialogue[next++].second + "\n";
        EXPECT_EQ(static_cast<ssize_t>(line.size()), write(master, line.data(), line.size()));
      }
    }
    close(master);
    outcome.exit_code = Wait(pid);
    EXPECT_EQ(dialogue.size(), next) << outcome.out;
    return outcome;
  }

  DemoShop shop_;
  std::string xdg_;
  const std::string ean_ = DemoCatalog()[0].ean;
};

TEST_F(VistrelClientTest, ShopDownFailingSlowOrRefusingIsNamed) {
  ASSERT_EQ(0, Vistrel({"register", "me@example.org", "--password-stdin"}, "pw\n").exit_code);
  ASSERT_EQ(0, Vistrel({"cart", "add", ean_}).exit_code);
  ASSERT_EQ(0, Vistrel({"pay", "--yes"}).exit_code);

  // Refused: the shop's own words, exit 1.
  Outcome refused = Vistrel({"login", "me@example.org", "--password-stdin"}, "wrong\n");
  EXPECT_EQ(1, refused.exit_code);
  EXPECT_TRUE(Contains(refused.err, "login refused: ")) << refused.err;

  // Answering 500: the address and the status, exit 3.
  shop_.SetFailure("/ws/shop/login", Failure::kHttp500);
  Outcome failing = Vistrel({"login", "me@example.org", "--password-stdin"}, "pw\n");
  EXPECT_EQ(3, failing.exit_code);
  EXPECT_EQ("vistrel: login failed: POST " + shop_.base_url() + "/ws/shop/login: HTTP status 500\n",
            failing.err);
  shop_.SetFailure("/ws/shop/login", Failure::kNone);

  // The shop's cart failing is not every book dropped.
  ASSERT_EQ(0, Vistrel({"cart", "add", DemoCatalog()[1].ean}).exit_code);
  shop_.SetFailure("/ws/shop/getCart", Failure::kHttp500);
  Outcome checkout = Vistrel({"checkout"});
  EXPECT_EQ(3, checkout.exit_code);
  EXPECT_EQ(
      "vistrel: checkout failed: POST " + shop_.base_url() + "/ws/shop/getCart: HTTP status 500\n",
      checkout.err);
  shop_.SetFailure("/ws/shop/getCart", Failure::kNone);

  // Slow but in time: it works, and -v shows each exchange with its time.
  shop_.SetAnswerDelay(std::chrono::milliseconds(300));
  Outcome slow = Vistrel({"-v", "purchased"});
  EXPECT_EQ(0, slow.exit_code) << slow.err;
  EXPECT_TRUE(
      Contains(slow.err, "vistrel: POST " + shop_.base_url() + "/ws/shop/getUserEbook: 200, "))
      << slow.err;
  EXPECT_TRUE(Contains(slow.out, "1 book purchased")) << slow.out;
  shop_.SetAnswerDelay(std::chrono::milliseconds(0));

  // Down: every command that needs the shop says so, with the address, instead of reporting
  // an empty library or an unknown book. Logging out needs no shop.
  shop_.Stop();
  for (const std::vector<std::string>& command : {std::vector<std::string>{"purchased"},
                                                  {"download", "--all"},
                                                  {"download", ean_},
                                                  {"status", ean_},
                                                  {"languages"},
                                                  {"init"},
                                                  {"order"}}) {
    const Outcome down = Vistrel(command);
    EXPECT_EQ(3, down.exit_code) << command[0] << ": " << down.out << down.err;
    EXPECT_TRUE(Contains(down.err, "cannot reach the shop: ")) << command[0] << ": " << down.err;
    EXPECT_TRUE(Contains(down.err, shop_.base_url() + "/ws/")) << down.err;
    EXPECT_TRUE(Contains(down.err, "connection refused")) << down.err;
  }
  const Outcome logout = Vistrel({"logout"});
  EXPECT_EQ(0, logout.exit_code) << logout.err;
  // A device without a cached configuration names the configuration server.
  const Outcome fresh = Run({"--device-root", work_dir_ + "/other", "--switchboard-url",
                             shop_.switchboard_url(), "--log-file", log_file_, "init"});
  EXPECT_EQ(3, fresh.exit_code);
  EXPECT_TRUE(
      Contains(fresh.err, "cannot reach the configuration server: GET " + shop_.switchboard_url()))
      << fresh.err;

  // A restarted shop has forgotten the account: init does not claim a session.
  DemoShop restarted;
  ASSERT_TRUE(restarted.Start(shop_.port()));
  const Outcome init = Vistrel({"init"});
  EXPECT_EQ(0, init.exit_code) << init.err;
  EXPECT_TRUE(Contains(init.out,
                       "session: the shop refused the stored credentials of "
                       "me@example.org (run vistrel login)"))
      << init.out;
  // Nor do the commands that need the session read its refusal as an empty library.
  const Outcome purchased = Vistrel({"purchased"});
  EXPECT_EQ(4, purchased.exit_code) << purchased.out;
  EXPECT_TRUE(Contains(purchased.err, "the shop refused the stored session: ")) << purchased.err;
}

TEST_F(VistrelClientTest, PasswordsFromTerminalStdinOrArguments) {
  // Registering asks twice, without echo.
  Outcome registered = OnTerminal({"register", "tty@example.org"},
                                  {{"Password: ", "s3cret-pw"}, {"Password again: ", "s3cret-pw"}});
  EXPECT_EQ(0, registered.exit_code) << registered.out;
  EXPECT_TRUE(Contains(registered.out, "registered and logged in as tty@example.org"));
  EXPECT_FALSE(Contains(registered.out, "s3cret-pw")) << registered.out;

  Outcome login = OnTerminal({"login", "tty@example.org"}, {{"Password: ", "s3cret-pw"}});
  EXPECT_EQ(0, login.exit_code) << login.out;
  EXPECT_FALSE(Contains(login.out, "s3cret-pw")) << login.out;

  // Off a terminal without --password-stdin there is nobody to ask.
  Outcome no_terminal = Vistrel({"login", "tty@example.org"});
  EXPECT_EQ(2, no_terminal.exit_code);
  EXPECT_TRUE(Contains(no_terminal.err, "--password-stdin")) << no_terminal.err;

  Outcome from_stdin = Vistrel({"login", "tty@example.org", "--password-stdin"}, "s3cret-pw\r\n");
  EXPECT_EQ(0, from_stdin.exit_code) << from_stdin.err;
  EXPECT_EQ("", from_stdin.err);

  // Still accepted as an argument, with a warning.
  Outcome argument = Vistrel({"login", "tty@example.org", "s3cret-pw"});
  EXPECT_EQ(0, argument.exit_code);
  EXPECT_TRUE(Contains(argument.err, "warning: a password on the command line")) << argument.err;

  // logout keeps the stored session and password; --forget removes them.
  const std::string config = "/mnt/ext1/system/config/vistrel_config.cfg";
  EXPECT_EQ(0, Vistrel({"logout"}).exit_code);
  EXPECT_TRUE(Contains(Vistrel({"init"}).out, "session: logged in as tty@example.org"));
  EXPECT_EQ(0, Vistrel({"logout", "--forget"}).exit_code);
  EXPECT_TRUE(Contains(Vistrel({"init"}).out, "session: not logged in"));
  EXPECT_FALSE(Contains(ReadDeviceFile(config), "tty@example.org")) << ReadDeviceFile(config);
  EXPECT_EQ(4, Vistrel({"purchased"}).exit_code);
}

TEST_F(VistrelClientTest, PayShowsTheShopsCartAndAsks) {
  ASSERT_EQ(0, Vistrel({"register", "me@example.org", "--password-stdin"}, "pw\n").exit_code);
  Outcome empty = Vistrel({"pay", "--yes"});
  EXPECT_EQ(1, empty.exit_code);
  EXPECT_TRUE(Contains(empty.err, "vistrel cart add")) << empty.err;

  ASSERT_EQ(0, Vistrel({"cart", "add", ean_}).exit_code);
  ASSERT_EQ(0, Vistrel({"cart", "add", DemoCatalog()[1].ean}).exit_code);
  Outcome unasked = Vistrel({"pay"});
  EXPECT_EQ(2, unasked.exit_code);
  EXPECT_TRUE(Contains(unasked.err, "--yes")) << unasked.err;

  Outcome declined = OnTerminal({"pay"}, {{"books? [y/N] ", "n"}});
  EXPECT_EQ(1, declined.exit_code) << declined.out;
  EXPECT_TRUE(Contains(declined.out, "2 books, total ")) << declined.out;
  EXPECT_TRUE(Contains(declined.out, " EUR for 2 books? [y/N] ")) << declined.out;
  EXPECT_TRUE(Contains(Vistrel({"cart", "list"}).out, "2 books")) << "declined, yet paid";

  Outcome accepted = OnTerminal({"pay"}, {{"books? [y/N] ", "y"}});
  EXPECT_EQ(0, accepted.exit_code) << accepted.out;
  EXPECT_TRUE(Contains(accepted.out, "delivered; 2 books purchased")) << accepted.out;

  // Bought already: refused unless forced.
  Outcome again = Vistrel({"cart", "add", ean_});
  EXPECT_EQ(1, again.exit_code);
  EXPECT_TRUE(Contains(again.err, "already purchased: " + ean_)) << again.err;
  EXPECT_EQ(0, Vistrel({"cart", "add", ean_, "--force"}).exit_code);

  // A book the shop does not sell stays in the device's cart: pay names it and the way out.
  ASSERT_EQ(0, Vistrel({"cart", "remove", ean_}).exit_code);
  ASSERT_EQ(0, Vistrel({"cart", "add", "4000000000006", "--title", "Gone"}).exit_code);
  Outcome dropped = Vistrel({"pay", "--yes"});
  EXPECT_EQ(1, dropped.exit_code);
  EXPECT_EQ(
      "vistrel: nothing was paid: the shop dropped 4000000000006 ( - Gone) from the cart, "
      "as not for sale; remove it with vistrel cart remove 4000000000006\n",
      dropped.err);
  EXPECT_EQ(0, Vistrel({"cart", "remove", "4000000000006"}).exit_code);
}

TEST_F(VistrelClientTest, AnUndeliveredOrderIsRecoveredByALaterProcess) {
  ASSERT_EQ(0, Vistrel({"register", "me@example.org", "--password-stdin"}, "pw\n").exit_code);
  ASSERT_EQ(0, Vistrel({"cart", "add", ean_}).exit_code);
  const std::string pending = "/mnt/ext1/system/config/vistrel_pending_order";

  // The delivery check fails after the payment: the buyer is told the way forward.
  shop_.SetFailure("/ws/shop/checkOrder", Failure::kHttp500);
  Outcome paid = Vistrel({"pay", "--yes"});
  EXPECT_EQ(3, paid.exit_code);
  EXPECT_TRUE(Contains(paid.err, "/ws/shop/checkOrder: HTTP status 500")) << paid.err;
  EXPECT_TRUE(Contains(paid.err, "run vistrel order")) << paid.err;
  EXPECT_TRUE(DeviceFileExists(pending));
  Outcome blocked = Vistrel({"pay", "--yes"});
  EXPECT_EQ(1, blocked.exit_code);
  EXPECT_TRUE(Contains(blocked.err, "run vistrel order first")) << blocked.err;

  shop_.SetFailure("/ws/shop/checkOrder", Failure::kNone);
  Outcome order = Vistrel({"order"});
  EXPECT_EQ(0, order.exit_code) << order.err;
  EXPECT_TRUE(Contains(order.out, "delivered; 1 book purchased")) << order.out;
  EXPECT_FALSE(DeviceFileExists(pending));
  EXPECT_TRUE(Contains(Vistrel({"purchased"}).out, ean_));
  EXPECT_EQ("no order is waiting for delivery\n", Vistrel({"order"}).out);

  // A wait cut short by --timeout keeps the order; links come a little later.
  // Long enough that a loaded machine still checks before the links are there.
  shop_.SetLinkDelay(std::chrono::milliseconds(2000));
  ASSERT_EQ(0, Vistrel({"cart", "add", DemoCatalog()[1].ean}).exit_code);
  Outcome short_wait = Vistrel({"pay", "--yes", "--timeout=0"});
  EXPECT_EQ(1, short_wait.exit_code);
  EXPECT_TRUE(Contains(short_wait.err, "is not delivered (not yet)")) << short_wait.err;
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  EXPECT_EQ(0, Vistrel({"order"}).exit_code);
  EXPECT_FALSE(DeviceFileExists(pending));

  // An unreadable pending order is moved aside, not deleted.
  WriteDeviceFile(pending, "{not json");
  Outcome unreadable = Vistrel({"order"});
  EXPECT_EQ(1, unreadable.exit_code);
  EXPECT_EQ(KeptAside(pending), std::vector<std::string>{"{not json"});
}

TEST_F(VistrelClientTest, ConfigurationFileFlagsAndEnvironment) {
  const std::string other_root = work_dir_ + "/from-file";
  mkdir((xdg_ + "/vistrel").c_str(), 0700);
  std::ofstream(xdg_ + "/vistrel/config") << "# the tool's settings\n"
                                          << "device_root = " << other_root << "\n"
                                          << "switchboard-url = " << shop_.switchboard_url() << "\n"
                                          << "serial = FROM-FILE\n"
                                          << "seriall = typo\n";
  // The file alone is enough to reach the shop.
  Outcome init = Run({"init"});
  EXPECT_EQ(0, init.exit_code) << init.err;
  EXPECT_TRUE(Contains(init.out, "device folder: " + other_root)) << init.out;
  EXPECT_EQ("FROM-FILE", shop_.last_serial());
  EXPECT_TRUE(Contains(init.err, "line 5: unknown key seriall (did you mean serial?)")) << init.err;

  // Flags beat the environment, which beats the file.
  Outcome config =
      Run({"config", "--device-root=" + device_root_}, "", {{"VISTREL_SERIAL_NUMBER", "FROM-ENV"}});
  EXPECT_EQ(0, config.exit_code) << config.err;
  EXPECT_TRUE(Contains(
      config.out, "device_root      " + device_root_ + "\n                   from --device-root"))
      << config.out;
  EXPECT_TRUE(Contains(
      config.out,
      "serial           FROM-ENV\n                   from environment VISTREL_SERIAL_NUMBER"))
      << config.out;
  EXPECT_TRUE(Contains(config.out, "from " + xdg_ + "/vistrel/config line 3")) << config.out;
}

TEST_F(VistrelClientTest, HabitsOfAUnixTool) {
  EXPECT_TRUE(Contains(Run({"--version"}).out, "vistrel "));
  EXPECT_TRUE(Contains(Run({"help", "order"}).out, "usage: vistrel order"));
  Outcome typo = Run({"purchsed"});
  EXPECT_EQ(2, typo.exit_code);
  EXPECT_TRUE(Contains(typo.err, "unknown command purchsed (did you mean purchased?)")) << typo.err;
  Outcome option_typo = Vistrel({"pay", "--yse"});
  EXPECT_EQ(2, option_typo.exit_code);
  EXPECT_TRUE(Contains(option_typo.err, "did you mean --yes?")) << option_typo.err;

  // Global options after the command, and --name=value.
  Outcome after = Run({"init", "--device-root=" + device_root_, "--switchboard-url",
                       shop_.switchboard_url(), "--log-file", log_file_});
  EXPECT_EQ(0, after.exit_code) << after.err;
  EXPECT_TRUE(Contains(after.out, "cart: 0 books\n")) << after.out;

  Outcome negative = Vistrel({"cart", "add", ean_, "--price", "-1"});
  EXPECT_EQ(2, negative.exit_code);
  EXPECT_TRUE(Contains(negative.err, "cannot be negative")) << negative.err;

  Outcome log =
      Run({"--device-root", device_root_, "--log-file", work_dir_ + "/no/such/log", "init"});
  EXPECT_EQ(1, log.exit_code);
  EXPECT_TRUE(Contains(log.err, "cannot write the log file " + work_dir_ + "/no/such/log"))
      << log.err;

  // Another configuration server is not taken up silently while the cached one is fresh.
  DemoShop second;
  ASSERT_TRUE(second.Start(0));
  Outcome stale = Run({"--device-root", device_root_, "--switchboard-url", second.switchboard_url(),
                       "--log-file", log_file_, "init"});
  EXPECT_EQ(0, stale.exit_code) << stale.err;
  EXPECT_TRUE(Contains(stale.err, "init --refresh")) << stale.err;
  EXPECT_TRUE(Contains(stale.out, "web service: " + shop_.base_url())) << stale.out;
  // Fetched once, and the standby picture installed once.
  const size_t pictures = EventsOfKind("poweroff-logo").size();
  Outcome refreshed =
      Run({"--device-root", device_root_, "--switchboard-url", second.switchboard_url(),
           "--log-file", log_file_, "-v", "init", "--refresh"});
  EXPECT_EQ(0, refreshed.exit_code) << refreshed.err;
  EXPECT_TRUE(Contains(refreshed.out, "configuration: fetched from " + second.switchboard_url()));
  EXPECT_TRUE(Contains(refreshed.out, "web service: " + second.base_url())) << refreshed.out;
  const std::string fetch = "vistrel: GET " + second.switchboard_url() + ": 200, ";
  EXPECT_TRUE(Contains(refreshed.err, fetch)) << refreshed.err;
  EXPECT_EQ(refreshed.err.find(fetch), refreshed.err.rfind(fetch)) << refreshed.err;
  EXPECT_FALSE(Contains(refreshed.err, "warning")) << refreshed.err;
  EXPECT_EQ(pictures + 1, EventsOfKind("poweroff-logo").size());

  // The demo shop refuses a port that is taken.
  const pid_t demo_shop = [&] {
    std::string program = VISTREL_DEMO_SHOP, port = std::to_string(shop_.port());
    char* argv[] = {&program[0], &port[0], nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, (work_dir_ + "/stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }();
  EXPECT_EQ(1, Wait(demo_shop));
  EXPECT_TRUE(Contains(ReadFile(work_dir_ + "/stderr"), "Address already in use"));
}

TEST_F(VistrelClientTest, ManualPageRendersAndCompletionLoads) {
  const std::string source = VISTREL_TOOL_SOURCE_DIR;
  if (std::system("command -v man >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "man is not installed (scripts/install_deps.sh installs man-db)";
  }
  const std::string page = work_dir_ + "/page";
  ASSERT_EQ(0, std::system(("MANWIDTH=80 man --warnings -l " + source + "/vistrel.1 >" + page +
                            " 2>" + page + ".err")
                               .c_str()));
  EXPECT_TRUE(Contains(ReadFile(page), "vistrel - buy and download e-books"));
  EXPECT_TRUE(Contains(ReadFile(page), "--password-stdin"));
  EXPECT_EQ("", ReadFile(page + ".err"));

  const std::string completions = work_dir_ + "/completions";
  ASSERT_EQ(0, std::system(("bash -c 'source " + source +
                            "/vistrel.bash-completion && complete -p vistrel && "
                            "COMP_WORDS=(vistrel --serial X or); COMP_CWORD=3; _vistrel; "
                            "echo \"${COMPREPLY[*]}\"; COMP_WORDS=(vistrel pay --t); "
                            "COMP_CWORD=2; _vistrel; echo \"${COMPREPLY[*]}\"' >" +
                            completions)
                               .c_str()));
  EXPECT_EQ("complete -F _vistrel vistrel\norder\n--timeout\n", ReadFile(completions));
}

}  // namespace
