#include "reader_support.h"

#include <cstdlib>

namespace norbel {
namespace opds {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

void AppendUtf8(uint32_t code, std::string* out) {
  if (code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) code = 0xFFFD;
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

// Decodes the character reference that begins at `text[at]` ('&'). Returns the length read,
// 0 when it is not a reference this knows (the '&' is then kept as it stands).
size_t DecodeReference(const std::string& text, size_t at, std::string* out) {
  const size_t end = text.find(';', at);
  if (end == std::string::npos || end - at > 10) return 0;
  const std::string name = text.substr(at + 1, end - at - 1);
  static const struct {
    const char* name;
    const char* text;
  } kNamed[] = {{"amp", "&"},         {"lt", "<"},         {"gt", ">"},         {"quot", "\""},
                {"apos", "'"},        {"nbsp", " "},       {"mdash", "\u2014"}, {"ndash", "\u2013"},
                {"hellip", "\u2026"}, {"rsquo", "\u2019"}, {"lsquo", "\u2018"}, {"rdquo", "\u201d"},
                {"ldquo", "\u201c"}};
  for (const auto& named : kNamed) {
    if (name == named.name) {
      *out += named.text;
      return end - at + 1;
    }
  }
  if (name.size() < 2 || name[0] != '#') return 0;
  const bool hex = name[1] == 'x' || name[1] == 'X';
  const std::string digits = name.substr(hex ? 2 : 1);
  if (digits.empty()) return 0;
  char* stop = nullptr;
  const unsigned long code = std::strtoul(digits.c_str(), &stop, hex ? 16 : 10);
  if (*stop != '\0') return 0;
  AppendUtf8(static_cast<uint32_t>(code > 0x10FFFF ? 0xFFFD : code), out);
  return end - at + 1;
}

}  // namespace

std::string Resolver::Resolve(const std::string& href) const {
  if (href.empty()) return href;
  // curl keeps a template's braces as they are and encodes blanks and 8-bit bytes.
  std::string resolved = base_.Resolve(href);
  if (!resolved.empty()) return resolved;
  // No usable base: an absolute address still parses on its own.
  const utilities::Url alone(href);
  if (alone.IsValid()) resolved = alone.Resolve(href);
  return resolved.empty() ? href : resolved;
}

std::string HtmlToText(const std::string& html) {
  std::string text;
  text.reserve(html.size());
  for (size_t i = 0; i < html.size(); ++i) {
    if (html[i] == '<') {
      const size_t close = html.find('>', i);
      if (close == std::string::npos) break;  // a cut-off tag ends the text
      text += ' ';
      i = close;
    } else if (html[i] == '&') {
      const size_t used = DecodeReference(html, i, &text);
      if (used == 0) {
        text += '&';
      } else {
        i += used - 1;
      }
    } else {
      text += html[i];
    }
  }
  return CollapseBlanks(text);
}

std::string CollapseBlanks(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  bool blank = false;
  for (char c : text) {
    if (IsBlank(c)) {
      blank = !out.empty();
      continue;
    }
    if (blank) out += ' ';
    blank = false;
    out += c;
  }
  return out;
}

std::string CutText(const std::string& text, size_t max_bytes) {
  if (text.size() <= max_bytes) return text;
  size_t end = max_bytes;
  // Back off continuation bytes so that no UTF-8 sequence is split.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace opds
}  // namespace norbel
