#include "progress_display.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cmath>
#include <vector>

namespace vistrel_cli {
namespace {

constexpr int kDefaultColumns = 80;
constexpr int kMaxBarWidth = 30;
constexpr int kMinBarWidth = 10;
// The rate is measured over this much of the recent past.
constexpr std::chrono::seconds kRateWindow{5};
// Beyond this the time left means nothing to anyone (and would not fit).
constexpr double kMaxSecondsShown = 100 * 3600;

// Characters of UTF-8 text (continuation bytes do not count).
int TextColumns(const std::string& text) {
  int count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80;
  return count;
}

// At most `columns` characters of `text`, never cutting a character; "..." marks a cut.
std::string Fit(const std::string& text, int columns) {
  if (TextColumns(text) <= columns) return text;
  if (columns <= 3) return std::string();
  std::string fitted;
  int count = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if ((c & 0xC0) != 0x80 && ++count > columns - 3) break;
    fitted += text[i];
  }
  return fitted + "...";
}

std::string TimeLeft(double seconds) {
  long long s = std::llround(seconds);  // NOLINT(runtime/int): printf's type
  char text[32];
  if (s >= 3600) {
    std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld left", s / 3600, s / 60 % 60, s % 60);
  } else {
    std::snprintf(text, sizeof(text), "%lld:%02lld left", s / 60, s % 60);
  }
  return text;
}

}  // namespace

ProgressDisplay::ProgressDisplay(std::string label)
    : ProgressDisplay(std::move(label), stderr, stdout) {}

ProgressDisplay::ProgressDisplay(std::string label, std::FILE* terminal, std::FILE* lines)
    : label_(std::move(label)),
      terminal_out_(terminal),
      lines_out_(lines),
      terminal_(isatty(fileno(terminal)) != 0) {}

std::string ProgressDisplay::Bytes(int64_t bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof(text), "%lld B", static_cast<long long>(bytes));  // NOLINT
  } else {
    std::snprintf(text, sizeof(text), "%.1f %s", value, units[unit]);
  }
  return text;
}

std::string ProgressDisplay::Line(const std::string& label, int percent, int64_t done,
                                  int64_t total, double rate, int columns) {
  const int room = columns - 1;
  char head[8];
  std::snprintf(head, sizeof(head), "%3d%%", percent);
  // Parts in order of importance; the least important go first when the line is narrow.
  std::vector<std::string> parts = {head};
  parts.push_back(total > 0 ? Bytes(done) + " / " + Bytes(total) : Bytes(done));
  if (rate >= 0) parts.push_back(Bytes(static_cast<int64_t>(rate)) + "/s");
  const double seconds_left = rate > 0 ? static_cast<double>(total - done) / rate : -1;
  if (total > done && seconds_left >= 0 && seconds_left < kMaxSecondsShown) {
    parts.push_back(TimeLeft(seconds_left));
  }
  auto join = [&parts](size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += (i == 0 ? "" : "  ") + parts[i];
    return text;
  };
  size_t count = parts.size();
  while (count > 1 && TextColumns(join(count)) > room) --count;
  std::string info = join(count);
  if (TextColumns(info) > room) return Fit(info, room);

  // A bar in front when there is room for one, then the label in what is left.
  int left = room - TextColumns(info);
  std::string line = info;
  int bar = std::min(kMaxBarWidth, left - 3 - 2 - 8);  // "[", "] ", "  " and a little label
  if (bar >= kMinBarWidth) {
    int filled = std::max(0, std::min(percent, 100)) * bar / 100;
    line = "[" + std::string(filled, '#') + std::string(bar - filled, '.') + "] " + info;
    left = room - TextColumns(line);
  }
  std::string name = Fit(label, left - 2);
  if (!name.empty()) line += "  " + name;
  return line;
}

int ProgressDisplay::Columns() const {
  winsize size{};
  if (ioctl(fileno(terminal_out_), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return kDefaultColumns;
}

double ProgressDisplay::Rate(int64_t done) {
  auto now = std::chrono::steady_clock::now();
  samples_.emplace_back(now, done);
  while (samples_.size() > 2 && now - samples_[1].first >= kRateWindow) samples_.pop_front();
  double seconds = std::chrono::duration<double>(now - samples_.front().first).count();
  if (seconds < 0.5) return -1;
  return static_cast<double>(done - samples_.front().second) / seconds;
}

void ProgressDisplay::Update(int percent, int64_t done, int64_t total) {
  if (percent < 0) percent = 0;
  if (percent > 100) percent = 100;
  if (terminal_) {
    std::string line = Line(label_, percent, done, total, Rate(done), Columns());
    if (line == last_line_) return;
    // Back to the line's start, the new text, and the rest of the old one cleared.
    std::fprintf(terminal_out_, "\r%s\x1b[K", line.c_str());
    std::fflush(terminal_out_);
    last_line_ = line;
    drawn_ = true;
    return;
  }
  // A line at 0% and at every further tenth.
  if (shown_ >= 0 && percent / 10 == shown_ / 10) return;
  std::fprintf(lines_out_, "  downloading %s: %d%%", label_.c_str(), percent);
  if (total > 0) std::fprintf(lines_out_, " (%s of %s)", Bytes(done).c_str(), Bytes(total).c_str());
  std::fputs("\n", lines_out_);
  shown_ = percent;
  std::fflush(lines_out_);
}

void ProgressDisplay::Finish(const std::string& outcome) {
  if (drawn_) {
    std::fputs("\r\x1b[K", terminal_out_);
    std::fflush(terminal_out_);
  }
  std::fprintf(lines_out_, "  %s: %s\n", label_.c_str(), outcome.c_str());
  std::fflush(lines_out_);
}

}  // namespace vistrel_cli
