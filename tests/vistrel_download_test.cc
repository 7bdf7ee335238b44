// `vistrel download` as a user meets it: a reason for every book that failed, a download that
// goes on where the last one stopped, and a progress line that fits the terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/file_host.h"
#include "support/shop_fixture.h"

extern char** environ;

namespace {

using vistrel_test::FileAnswer;
using vistrel_test::FileHost;
using vistrel_test::FileRequest;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Characters of UTF-8 text.
size_t Characters(const std::string& text) {
  size_t count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80;
  return count;
}

struct Book {
  std::string ean;
  std::string author;
  std::string title;
  std::string path;  // on the file host
};

class VistrelDownloadTest : public vistrel_test::ShopTest {
 protected:
  // The shop lists these books, bought, with links to the file host.
  void Sell(const std::vector<Book>& books) {
    std::string list;
    for (const Book& book : books) {
      list += std::string(list.empty() ? "" : ", ") + R"({"orderPositionEan": ")" + book.ean +
              R"(", "orderPositionTitle": ")" + book.title + R"(", "orderPositionAuthor": ")" +
              book.author + R"(", "orderPositionEbookFormat": "PDF", "orderPositionEbookLink": ")" +
              files_.Url(book.path) + "\"}";
    }
    server_.Set("/ws/shop/getUserEbook",
                vistrel_test::Answer(vistrel_test::ShopOk("[" + list + "]")));
    StoreConfigValue("session_id", "sess");
  }

  // Runs the tool; returns its exit code, with stdout and stderr in out_ and err_.
  int Vistrel(const std::string& args) {
    const std::string out = work_dir_ + "/stdout", err = work_dir_ + "/stderr";
    int status =
        std::system((std::string(VISTREL_CLI) + " " + args + " >" + out + " 2>" + err).c_str());
    out_ = ReadFile(out);
    err_ = ReadFile(err);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Runs the tool with stderr on a pseudo-terminal of `columns` columns; returns what the
  // terminal received.
  std::string VistrelOnTerminal(const std::string& args, int columns) {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_GE(master, 0);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    grantpt(master);
    unlockpt(master);
    int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(slave, 0);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(columns);
    ioctl(slave, TIOCSWINSZ, &size);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, slave, 2);
    const std::string out = work_dir_ + "/stdout";
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<std::string> words = {VISTREL_CLI};
    for (size_t start = 0, end; start < args.size(); start = end + 1) {
      end = args.find(' ', start);
      if (end == std::string::npos) end = args.size();
      words.push_back(args.substr(start, end - start));
    }
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, VISTREL_CLI, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(slave);

    std::string seen;
    char buffer[4096];
    for (;;) {  // until the terminal's other side is closed by the tool's exit
      pollfd waiting{master, POLLIN, 0};
      if (poll(&waiting, 1, 10000) <= 0) break;
      ssize_t n = read(master, buffer, sizeof(buffer));
      if (n <= 0) break;
      seen.append(buffer, static_cast<size_t>(n));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    out_ = ReadFile(out);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out_;
    return seen;
  }

  FileHost files_{[](const FileRequest&) { return FileAnswer(); }};
  std::string out_;
  std::string err_;
};

TEST_F(VistrelDownloadTest, EveryFailedBookGetsItsReasonAndACutBookGoesOnWhereItStopped) {
  const std::string content(300000, 'p');
  const std::string long_title(200, 'x');
  const std::string accents = "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9";
  std::string wide_title;  // 160 characters, 320 bytes: more than a folder entry takes
  for (int i = 0; i < 20; ++i) wide_title += accents;
  Sell({{"1", "A", "Missing", "/missing"},
        {"2", "A", "Page", "/page"},
        {"3", "A", "Empty", "/empty"},
        {"4", "A", "Cut", "/cut"},
        {"5", "A", wide_title, "/wide"},
        {"6", "A", "Good", "/good"}});
  bool cut = true;
  files_.SetHandler([&](const FileRequest& request) {
    FileAnswer answer;
    if (request.path == "/missing") answer.status = 404;
    if (request.path == "/page") {
      answer.headers = {{"Content-Type", "text/html"}};
      answer.body = "<html>please sign in</html>";
    }
    if (request.path == "/cut" || request.path == "/good" || request.path == "/wide") {
      answer = vistrel_test::ServeFile(request, content, "\"c1\"", "");
      if (request.path == "/cut" && cut) answer.stop_after = 100000;
    }
    return answer;
  });

  EXPECT_EQ(Vistrel("download --all"), 1);
  EXPECT_EQ(err_, "vistrel: download failed for 5 of 6 books\n");
  const char* reasons[] = {
      "  A - Missing: failed: the server answered HTTP 404\n",
      "  A - Page: failed: the server sent text/html instead of a book\n",
      "  A - Empty: failed: an empty answer instead of the file\n",
      "  A - Cut: failed: ",  // the transfer's words, then:
      "; 97.7 KiB kept, run the command again to go on\n",
      ": failed: the file name has 328 bytes, more than the 255 a folder entry takes\n",
      "  A - Good: /mnt/ext1/Downloads/A - Good.pdf\n"};
  for (const char* reason : reasons) {
    EXPECT_NE(out_.find(reason), std::string::npos) << reason << "\nin:\n" << out_;
  }
  // One event line per download.
  EXPECT_EQ(EventsOfKind("download").size(), 6u);

  cut = false;
  files_.SetHandler([&](const FileRequest& request) {
    return vistrel_test::ServeFile(request, content, "\"c1\"", "");
  });
  EXPECT_EQ(Vistrel("download 4"), 0) << err_;
  ASSERT_FALSE(files_.requests().empty());
  EXPECT_EQ(files_.requests().back().Header("range"), "bytes=100000-");
  EXPECT_TRUE(ReadDeviceFile("/mnt/ext1/Downloads/A - Cut.pdf") == content);
}

TEST_F(VistrelDownloadTest, ProgressIsRedrawnInPlaceWithinTheTerminalWidth) {
  const std::string content(600000, 'q');
  Sell({{"7", "Author With A Rather Long Name", "A Title That Does Not Fit A Narrow Terminal",
         "/slow"}});
  files_.SetHandler([&](const FileRequest& request) {
    FileAnswer answer = vistrel_test::ServeFile(request, content, "", "");
    answer.piece_bytes = 20000;
    answer.pause = std::chrono::milliseconds(40);
    return answer;
  });
  const std::string file =
      "/mnt/ext1/Downloads/Author With A Rather Long Name - A Title That Does Not Fit A Narrow "
      "Terminal.pdf";
  for (int columns : {40, 120}) {
    std::remove(HostPath(file).c_str());
    const std::string screen = VistrelOnTerminal("download 7", columns);
    EXPECT_EQ(screen.find('\n'), std::string::npos) << columns;  // never a new line per redraw
    std::vector<std::string> lines;
    for (size_t start = 0, end; start < screen.size(); start = end + 1) {
      end = screen.find('\r', start);
      if (end == std::string::npos) end = screen.size();
      std::string line = screen.substr(start, end - start);
      const std::string clear = "\x1b[K";
      if (line.size() >= clear.size() && line.compare(line.size() - 3, 3, clear) == 0) {
        line.resize(line.size() - 3);
      }
      if (!line.empty()) lines.push_back(line);
    }
    ASSERT_GE(lines.size(), 3u) << columns << ": " << screen;
    bool rate_and_time = false;
    for (const std::string& line : lines) {
      EXPECT_LT(Characters(line), static_cast<size_t>(columns)) << line;
      EXPECT_NE(line.find('%'), std::string::npos) << line;
      rate_and_time |=
          line.find("/s") != std::string::npos && line.find(" left") != std::string::npos;
    }
    if (columns == 120) {
      EXPECT_TRUE(rate_and_time) << screen;
      EXPECT_NE(screen.find(" / 585.9 KiB"), std::string::npos) << screen;
      EXPECT_NE(screen.find("Author With A Rather Long Name"), std::string::npos) << screen;
    }
    EXPECT_NE(out_.find(": " + file), std::string::npos) << out_;
  }
}

}  // namespace
