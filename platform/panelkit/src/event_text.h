// Texts of the host's event log, kept to one line per event.
#ifndef PANELKIT_SRC_EVENT_TEXT_H_
#define PANELKIT_SRC_EVENT_TEXT_H_

#include <cstddef>
#include <string>

namespace panelkit_internal {

// Control bytes (and, with `escape_high_bytes`, every byte outside printable ASCII, for binary
// data) become "\xHH"; with `escape_high_bytes` a backslash becomes "\\".
std::string EscapeText(const char* data, size_t size, bool escape_high_bytes);

}  // namespace panelkit_internal

#endif  // PANELKIT_SRC_EVENT_TEXT_H_
