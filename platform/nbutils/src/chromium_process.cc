#include "chromium_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace norbel {
namespace utilities {
namespace {

constexpr int kCommandFd = 3;  // the browser reads commands here
constexpr int kMessageFd = 4;  // and writes its messages here
constexpr int kPoliteStopMs = 2000;

std::string TemporaryFolder() {
  const char* tmp = getenv("TMPDIR");
  std::string folder = tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp";
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  return folder;
}

// A descriptor at 10 or above, close-on-exec, so that the child can move it to 3 or 4 without
// clobbering another; the original is closed.
int MoveHigh(int fd) {
  int high = fcntl(fd, F_DUPFD_CLOEXEC, 10);
  close(fd);
  return high;
}

int RemoveEntry(const char* path, const struct stat*, int type, struct FTW*) {
  if (type == FTW_DP) {
    rmdir(path);
  } else {
    unlink(path);
  }
  return 0;
}

void RemoveTree(const std::string& path) {
  nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Writes all of `data` to a non-blocking pipe within `timeout_ms`. SIGPIPE is held back on this
// thread while writing, so a browser that went away gives EPIPE instead of ending the caller.
bool WriteAll(int fd, const char* data, size_t size, int timeout_ms) {
  sigset_t pipe_signal, old_mask;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &old_mask);
  const int64_t deadline = NowMs() + timeout_ms;
  bool ok = true;
  bool broke = false;
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      const int64_t left = deadline - NowMs();
      pollfd p{fd, POLLOUT, 0};
      if (left > 0 && poll(&p, 1, static_cast<int>(left)) >= 0) continue;
    }
    broke = n < 0 && errno == EPIPE;
    ok = false;
    break;
  }
  if (broke && !sigismember(&old_mask, SIGPIPE)) {
    timespec zero{0, 0};
    sigtimedwait(&pipe_signal, nullptr, &zero);  // takes the SIGPIPE this write raised
  }
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
  return ok;
}

}  // namespace

bool ChromiumProcess::Start(const std::string& executable, const std::vector<std::string>& flags,
                            std::string* error) {
  Stop();
  std::string folder = TemporaryFolder() + "/vistrel-chromium-XXXXXX";
  if (mkdtemp(&folder[0]) == nullptr) {
    *error = "cannot make a profile folder: " + std::string(strerror(errno));
    return false;
  }
  profile_ = folder;

  int commands[2], messages[2];
  if (pipe2(commands, O_CLOEXEC) != 0) {
    *error = "cannot make a pipe: " + std::string(strerror(errno));
    return false;
  }
  if (pipe2(messages, O_CLOEXEC) != 0) {
    *error = "cannot make a pipe: " + std::string(strerror(errno));
    close(commands[0]);
    close(commands[1]);
    return false;
  }
  const int child_reads = MoveHigh(commands[0]), child_writes = MoveHigh(messages[1]);
  to_browser_ = commands[1];
  from_browser_ = messages[0];
  fcntl(to_browser_, F_SETFL, O_NONBLOCK);
  fcntl(from_browser_, F_SETFL, O_NONBLOCK);

  // Everything the child needs is made before fork(): after it, only async-signal-safe calls.
  std::vector<std::string> words = {executable, "--remote-debugging-pipe",
                                    "--user-data-dir=" + profile_,
                                    "--disk-cache-dir=" + profile_ + "/cache"};
  words.insert(words.end(), flags.begin(), flags.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  const int dev_null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const long max_fd = sysconf(_SC_OPEN_MAX) > 0 ? sysconf(_SC_OPEN_MAX) : 1024;
  const pid_t parent = getpid();

  pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);  // one group: the browser and every helper it starts end together
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    if (dev_null >= 0) {
      dup2(dev_null, 0);
      dup2(dev_null, 1);
      dup2(dev_null, 2);
    }
    if (child_reads < 0 || child_writes < 0 || dup2(child_reads, kCommandFd) < 0 ||
        dup2(child_writes, kMessageFd) < 0) {
      _exit(127);
    }
    for (long fd = kMessageFd + 1; fd < max_fd && fd < 65536; ++fd) close(static_cast<int>(fd));
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  const int fork_error = errno;
  if (dev_null >= 0) close(dev_null);
  if (child_reads >= 0) close(child_reads);
  if (child_writes >= 0) close(child_writes);
  if (pid < 0) {
    *error = "cannot start " + executable + ": " + strerror(fork_error);
    Stop();
    return false;
  }
  pid_ = pid;
  setpgid(pid_, pid_);  // also here, so that the group exists before the first kill
  reaped_ = false;
  return true;
}

bool ChromiumProcess::Send(const std::string& message, int timeout_ms) {
  if (to_browser_ < 0) return false;
  std::string framed = message;
  framed.push_back('\0');
  return WriteAll(to_browser_, framed.data(), framed.size(), timeout_ms);
}

ChromiumProcess::Read ChromiumProcess::Receive(int timeout_ms, std::string* message) {
  const int64_t deadline = NowMs() + timeout_ms;
  size_t scanned = 0;
  for (;;) {
    size_t end = buffer_.find('\0', scanned);
    if (end != std::string::npos) {
      const bool skipped = skipping_;
      skipping_ = false;
      if (!skipped) message->assign(buffer_, 0, end);
      buffer_.erase(0, end + 1);
      scanned = 0;
      if (!skipped) return Read::kMessage;
      continue;
    }
    scanned = buffer_.size();
    if (buffer_.size() > kMaxMessage) {  // too long: drop what came and the rest of it
      skipping_ = true;
      buffer_.clear();
      scanned = 0;
    }
    if (from_browser_ < 0) return Read::kClosed;
    const int64_t left = deadline - NowMs();
    pollfd p{from_browser_, POLLIN, 0};
    const int ready = poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return Read::kTimeout;
    char chunk[65536];
    ssize_t n = read(from_browser_, chunk, sizeof chunk);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) {
      close(from_browser_);
      from_browser_ = -1;
      return Read::kClosed;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

bool ChromiumProcess::Exited(int timeout_ms, int* status) {
  if (pid_ < 0) return false;
  const int64_t deadline = NowMs() + timeout_ms;
  while (!reaped_) {
    pid_t done = waitpid(pid_, &status_, WNOHANG);
    if (done == pid_ || (done < 0 && errno == ECHILD)) {
      reaped_ = true;
      break;
    }
    if (NowMs() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  *status = status_;
  return true;
}

std::string ChromiumProcess::DescribeStatus(int status) {
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exited with status " + std::to_string(WEXITSTATUS(status));
}

void ChromiumProcess::Stop() {
  CloseFds();
  if (pid_ > 0) {
    int status = 0;
    if (!reaped_) {
      kill(-pid_, SIGTERM);
      if (!Exited(kPoliteStopMs, &status)) {
        kill(-pid_, SIGKILL);
        while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
        }
        reaped_ = true;
      }
    }
    kill(-pid_, SIGKILL);  // helpers of the group that outlived the browser
    pid_ = -1;
  }
  if (!profile_.empty()) {
    KillLeftovers();
    RemoveTree(profile_);
    profile_.clear();
  }
  buffer_.clear();
  skipping_ = false;
}

void ChromiumProcess::CloseFds() {
  if (to_browser_ >= 0) close(to_browser_);
  if (from_browser_ >= 0) close(from_browser_);
  to_browser_ = from_browser_ = -1;
}

// A helper that left the group (a crash handler that started a session of its own) still names
// the profile in its command line: it is ours and is ended too.
void ChromiumProcess::KillLeftovers() const {
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return;
  const pid_t self = getpid();
  while (dirent* entry = readdir(proc)) {
    char* end = nullptr;
    const long pid = strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || pid <= 0 || pid == self) continue;
    // Only processes of this user that name this session's own, freshly made profile folder.
    struct stat owner;
    const std::string dir = std::string("/proc/") + entry->d_name;
    if (stat(dir.c_str(), &owner) != 0 || owner.st_uid != geteuid()) continue;
    std::ifstream in(dir + "/cmdline", std::ios::binary);
    std::string command_line((std::istreambuf_iterator<char>(in)), {});
    if (command_line.find(profile_) != std::string::npos) kill(static_cast<pid_t>(pid), SIGKILL);
  }
  closedir(proc);
}

}  // namespace utilities
}  // namespace norbel
