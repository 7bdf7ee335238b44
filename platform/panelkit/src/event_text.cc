#include "event_text.h"

#include <cstdio>

namespace panelkit_internal {

std::string EscapeText(const char* data, size_t size, bool escape_high_bytes) {
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    unsigned char byte = static_cast<unsigned char>(data[i]);
    bool printable = byte >= 0x20 && byte != 0x7F && (byte < 0x80 || !escape_high_bytes);
    if (byte == '\\' && escape_high_bytes) {
      text += "\\\\";
    } else if (printable) {
      text += static_cast<char>(byte);
    } else {
      char hex[5];
      std::snprintf(hex, sizeof(hex), "\\x%02X", byte);
      text += hex;
    }
  }
  return text;
}

}  // namespace panelkit_internal
