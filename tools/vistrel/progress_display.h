// Shows how far a download is. On a terminal: one line on stderr with a bar, the percentage,
// the bytes received of the whole, the rate and the time left, fitted to the terminal's width
// (less important parts are left out when it is narrow) and redrawn in place. Off a terminal:
// a plain line on stdout at every tenth of the way. The closing line goes to stdout.
#ifndef TOOLS_VISTREL_PROGRESS_DISPLAY_H_
#define TOOLS_VISTREL_PROGRESS_DISPLAY_H_

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <utility>

namespace vistrel_cli {

class ProgressDisplay {
 public:
  // `label` names what is being downloaded.
  explicit ProgressDisplay(std::string label);
  // For tests: draws on `terminal` as a terminal when it is one, else on `lines`.
  ProgressDisplay(std::string label, std::FILE* terminal, std::FILE* lines);

  // `done` bytes of `total` (0 when the size is unknown); `percent` as the store reports it.
  void Update(int percent, int64_t done, int64_t total);
  // Ends the display with a closing line ("<path>", "failed: <reason>").
  void Finish(const std::string& outcome);

  // The line for a terminal of `columns` columns; never wider than columns - 1, so that the
  // terminal does not wrap it. `rate` in bytes per second (negative: unknown).
  static std::string Line(const std::string& label, int percent, int64_t done, int64_t total,
                          double rate, int columns);
  // "12.3 MiB", "512 B".
  static std::string Bytes(int64_t bytes);

 private:
  int Columns() const;
  // Bytes per second over the last few seconds; negative until it can tell.
  double Rate(int64_t done);

  std::string label_;
  std::FILE* terminal_out_;
  std::FILE* lines_out_;
  bool terminal_;
  int shown_ = -1;  // last percentage shown off a terminal
  bool drawn_ = false;
  std::string last_line_;
  std::deque<std::pair<std::chrono::steady_clock::time_point, int64_t>> samples_;
};

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_PROGRESS_DISPLAY_H_
