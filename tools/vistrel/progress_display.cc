#include "progress_display.h"

#include <unistd.h>

namespace vistrel_cli {

namespace {
constexpr int kBarWidth = 30;
}

ProgressDisplay::ProgressDisplay(std::FILE* out, std::string label)
    : out_(out), label_(std::move(label)), terminal_(isatty(fileno(out)) != 0) {}

void ProgressDisplay::Update(int percent) {
  if (percent < 0) percent = 0;
  if (percent > 100) percent = 100;
  if (terminal_) {
    if (percent == shown_) return;
    const int filled = percent * kBarWidth / 100;
    std::fprintf(out_, "\r  [%s%s] %3d%%  %s", std::string(filled, '#').c_str(),
                 std::string(kBarWidth - filled, '.').c_str(), percent, label_.c_str());
  } else {
    // A line at 0% and at every further tenth.
    if (shown_ >= 0 && percent / 10 == shown_ / 10) return;
    std::fprintf(out_, "  downloading %s: %d%%\n", label_.c_str(), percent);
  }
  shown_ = percent;
  std::fflush(out_);
}

void ProgressDisplay::Finish(const std::string& outcome) {
  if (terminal_ && shown_ >= 0) std::fputs("\n", out_);
  std::fprintf(out_, "  %s: %s\n", label_.c_str(), outcome.c_str());
  std::fflush(out_);
}

}  // namespace vistrel_cli
