// Messages, tasks, file types, file removal and upper-casing on a host. Messages and requests
// to other applications cannot be shown or delivered here; they become events in the log.
#include <locale.h>
#include <unistd.h>
#include <wctype.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "event_text.h"
#include "host/environment.h"
#include "no_throw.h"
#include "panelkit/panelkit.h"

using panelkit_internal::EscapeText;

namespace {

const char* OrEmpty(const char* text) { return text ? text : ""; }

// Decodes one UTF-8 character at `text`; returns its length, or 0 when the bytes there do
// not form a valid character (overlong forms, surrogates and values past U+10FFFF included).
size_t DecodeUtf8(const unsigned char* text, uint32_t* code) {
  unsigned char lead = text[0];
  size_t length;
  uint32_t value;
  if (lead < 0x80) {
    *code = lead;
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2;
    value = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    value = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    value = lead & 0x07;
  } else {
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    if ((text[i] & 0xC0) != 0x80) return 0;  // also stops at the terminating zero
    value = (value << 6) | (text[i] & 0x3F);
  }
  static const uint32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
  if (value < kMinimum[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    return 0;
  }
  *code = value;
  return length;
}

void EncodeUtf8(uint32_t code, std::string* out) {
  if (code < 0x80) {
    *out += static_cast<char>(code);
  } else if (code < 0x800) {
    *out += static_cast<char>(0xC0 | (code >> 6));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    *out += static_cast<char>(0xE0 | (code >> 12));
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (code >> 18));
    *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// For hosts without a UTF-8 locale: ASCII, Latin-1, basic Greek and Cyrillic.
uint32_t FallbackUpper(uint32_t code) {
  if (code >= 'a' && code <= 'z') return code - 0x20;
  if (code >= 0xE0 && code <= 0xFE && code != 0xF7) return code - 0x20;
  if (code == 0xFF) return 0x178;
  if (code >= 0x3B1 && code <= 0x3C9 && code != 0x3C2) return code - 0x20;
  if (code >= 0x430 && code <= 0x44F) return code - 0x20;
  if (code >= 0x450 && code <= 0x45F) return code - 0x50;
  return code;
}

uint32_t ToUpper(uint32_t code) {
  // The locale lives as long as the process; the C library's case tables know all of Unicode.
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (utf8 == nullptr) return FallbackUpper(code);
  return static_cast<uint32_t>(towupper_l(static_cast<wint_t>(code), utf8));
}

// A small, stable task number for an application path.
int TaskNumber(const std::string& path) {
  uint32_t hash = 2166136261u;
  for (unsigned char byte : path) hash = (hash ^ byte) * 16777619u;
  return static_cast<int>(hash % 30000u) + 1;
}

// The types that the device's readers open.
const ifiletype kSupportedFileTypes[] = {
    {"epub", "EPUB"},       {"pdf", "PDF"},        {"fb2", "FictionBook"}, {"txt", "Text"},
    {"rtf", "RTF"},         {"doc", "Word"},       {"djvu", "DjVu"},       {"djv", "DjVu"},
    {"mobi", "Mobipocket"}, {"prc", "Mobipocket"}, {"chm", "CHM"},         {"htm", "HTML"},
    {"html", "HTML"},       {nullptr, nullptr},
};

}  // namespace

extern "C" void Message(int icon, const char* title, const char* text, int timeout_ms) {
  panelkit_internal::NoThrow([&] {
    const char* t = OrEmpty(title);
    const char* x = OrEmpty(text);
    vistrel_host::AppendEvent(
        "message\t" + std::to_string(icon) + "\t" + EscapeText(t, std::strlen(t), false) + "\t" +
        EscapeText(x, std::strlen(x), false) + "\t" + std::to_string(timeout_ms));
  });
}

extern "C" int FindTaskByAppName(const char* path) {
  return panelkit_internal::NoThrow(-1, [&] {
    if (path == nullptr || path[0] == '\0') return -1;
    // An installed application counts as running.
    if (access(vistrel_host::ResolveDevicePath(path).c_str(), F_OK) != 0) return -1;
    return TaskNumber(path);
  });
}

extern "C" int SendRequestTo(int task, int request, void* data, int size, int /*flags*/,
                             int /*timeout_ms*/) {
  return panelkit_internal::NoThrow(-1, [&] {
    std::string text;
    if (data != nullptr && size > 0) {
      text = EscapeText(static_cast<const char*>(data), static_cast<size_t>(size), true);
    }
    vistrel_host::AppendEvent("request\t" + std::to_string(task) + "\t" + std::to_string(request) +
                              "\t" + text);
    return 0;
  });
}

extern "C" const ifiletype* GetSupportedFileTypes(void) { return kSupportedFileTypes; }

extern "C" int pk_unlink(const char* path) {
  return panelkit_internal::NoThrow(-1, [&] {
    if (path == nullptr) return -1;
    return unlink(vistrel_host::ResolveDevicePath(path).c_str()) == 0 ? 0 : -1;
  });
}

extern "C" char* utf_toupper_ext(const char* text) {
  return panelkit_internal::NoThrow(static_cast<char*>(nullptr), [&]() -> char* {
    if (text == nullptr) return nullptr;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    std::string upper;
    while (*in != '\0') {
      uint32_t code;
      size_t length = DecodeUtf8(in, &code);
      if (length == 0) {
        upper += static_cast<char>(*in++);  // not UTF-8: kept as it is
        continue;
      }
      EncodeUtf8(ToUpper(code), &upper);
      in += length;
    }
    char* result = static_cast<char*>(std::malloc(upper.size() + 1));
    if (result == nullptr) return nullptr;
    std::memcpy(result, upper.c_str(), upper.size() + 1);
    return result;
  });
}
