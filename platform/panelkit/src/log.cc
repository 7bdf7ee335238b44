// The device log on a host: one tab-separated line per event in the event log.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "event_text.h"
#include "host/environment.h"
#include "no_throw.h"
#include "panelkit/panelkit.h"

extern "C" void nb_print_log2(int level, const char* file, int line, const char* function,
                              const char* format, ...) {
  va_list args;
  va_start(args, format);
  panelkit_internal::NoThrow([&] {
    va_list copy;
    va_copy(copy, args);
    int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text;
    if (size > 0) {
      std::vector<char> buffer(static_cast<size_t>(size) + 1);
      std::vsnprintf(buffer.data(), buffer.size(), format, args);
      text.assign(buffer.data(), static_cast<size_t>(size));
    }

    // A logged value may hold a line break or a tab: escaped, the event stays one line.
    std::string event = std::to_string(level) + "\t" + (file ? file : "") + "\t" +
                        std::to_string(line) + "\t" + (function ? function : "") + "\t" +
                        panelkit_internal::EscapeText(text.data(), text.size(), false);
    if (vistrel_host::HasEventLog()) {
      vistrel_host::AppendEvent(event);
    } else if (level <= 2) {
      std::fprintf(stderr, "%s\n", event.c_str());
    }
  });
  va_end(args);
}
