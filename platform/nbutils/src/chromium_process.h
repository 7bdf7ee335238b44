// One Chromium process driven over its DevTools pipes: started with a fresh temporary profile
// in a process group of its own, spoken to in NUL-terminated JSON messages, and ended with its
// whole group and its profile. Private to nbutils.
#ifndef NBUTILS_SRC_CHROMIUM_PROCESS_H_
#define NBUTILS_SRC_CHROMIUM_PROCESS_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace norbel {
namespace utilities {

class ChromiumProcess {
 public:
  // A message longer than this is skipped whole (the browser's own messages are far shorter;
  // a page can make some grow, for instance with a huge address).
  static constexpr size_t kMaxMessage = 8u << 20;

  ChromiumProcess() = default;
  ~ChromiumProcess() { Stop(); }
  ChromiumProcess(const ChromiumProcess&) = delete;
  ChromiumProcess& operator=(const ChromiumProcess&) = delete;

  // Starts `executable` with `flags`, the pipe switch and a new profile folder. False, with
  // the reason in *error, when it cannot be started.
  bool Start(const std::string& executable, const std::vector<std::string>& flags,
             std::string* error);

  // Sends one message; waits at most `timeout_ms` for room in the pipe. False when the
  // browser does not take it.
  bool Send(const std::string& message, int timeout_ms);

  enum class Read { kMessage, kTimeout, kClosed };
  // Waits at most `timeout_ms` for the next whole message.
  Read Receive(int timeout_ms, std::string* message);

  // Ends the process group (politely, then by force), reaps the browser, ends any process left
  // that still uses the profile, and removes the profile. Safe to call more than once.
  void Stop();

  // After the pipe closed: whether the browser has exited, and how ("exited with status 0",
  // "killed by signal 11"). Waits up to `timeout_ms` for it to exit.
  bool Exited(int timeout_ms, int* status);
  static std::string DescribeStatus(int status);

  const std::string& profile() const { return profile_; }

 private:
  void CloseFds();
  void KillLeftovers() const;

  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  int to_browser_ = -1;
  int from_browser_ = -1;
  std::string profile_;
  std::string buffer_;
  bool skipping_ = false;  // inside a message longer than kMaxMessage
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_SRC_CHROMIUM_PROCESS_H_
