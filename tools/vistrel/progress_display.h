// Shows how far a download is: a bar redrawn in place on a terminal, else a plain line at
// every tenth of the way.
#ifndef TOOLS_VISTREL_PROGRESS_DISPLAY_H_
#define TOOLS_VISTREL_PROGRESS_DISPLAY_H_

#include <cstdio>
#include <string>

namespace vistrel_cli {

class ProgressDisplay {
 public:
  // `label` names what is being downloaded.
  ProgressDisplay(std::FILE* out, std::string label);

  void Update(int percent);
  // Ends the display with a closing line ("done: <path>", "failed").
  void Finish(const std::string& outcome);

 private:
  std::FILE* out_;
  std::string label_;
  bool terminal_;
  int shown_ = -1;  // last percentage shown
};

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_PROGRESS_DISPLAY_H_
