// Configuration files on a host.
//
// File format: one "key=value" line per entry, in key order. The key runs to the first "=";
// keys are simple (not empty, no "=", no line breaks, not starting with "#"). In values a
// backslash is written "\\", a line feed "\n" and a carriage return "\r"; "=" needs no escape
// because only the first one on a line separates. Empty lines, lines starting with "#" and
// lines without "=" are skipped when reading.
//
// Secrets are stored as "$secret$" followed by the hex digits of the value XORed with a fixed
// key. That only keeps them from being read at a glance (or found by grep): it is obfuscation,
// not encryption. A device keeps such values in its keystore.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "host/environment.h"
#include "host/files.h"
#include "no_throw.h"
#include "panelkit/panelkit.h"

struct iconfig_s {
  std::string host_path;
  std::map<std::string, std::string> values;   // as stored (secrets obfuscated)
  std::map<std::string, std::string> secrets;  // decoded secrets handed out by ReadSecret
  bool changed = false;
};

namespace {

const char kSecretPrefix[] = "$secret$";
const unsigned char kSecretKey[] = "k3lm4st-panel:cfg/obfuscation";

bool ValidKey(const char* name) {
  if (!name || !*name || *name == '#') return false;
  for (const char* p = name; *p; ++p) {
    if (*p == '=' || *p == '\n' || *p == '\r') return false;
  }
  return true;
}

std::string Escape(const std::string& value) {
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else {
      out += c;
    }
  }
  return out;
}

std::string Unescape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    char next = text[++i];
    if (next == 'n') {
      out += '\n';
    } else if (next == 'r') {
      out += '\r';
    } else if (next == '\\') {
      out += '\\';
    } else {  // unknown escape: kept as written
      out += '\\';
      out += next;
    }
  }
  return out;
}

std::map<std::string, std::string> Parse(const std::string& text) {
  std::map<std::string, std::string> values;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t eq = line.find('=');
    if (line.empty() || line[0] == '#' || eq == std::string::npos || eq == 0) continue;
    values[line.substr(0, eq)] = Unescape(line.substr(eq + 1));
  }
  return values;
}

std::string Serialize(const std::map<std::string, std::string>& values) {
  std::string text;
  for (const auto& [key, value] : values) text += key + "=" + Escape(value) + "\n";
  return text;
}

std::string Obfuscate(const std::string& plain) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = kSecretPrefix;
  for (size_t i = 0; i < plain.size(); ++i) {
    unsigned char c =
        static_cast<unsigned char>(plain[i]) ^ kSecretKey[i % (sizeof(kSecretKey) - 1)];
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// False when `stored` is not a well-formed obfuscated value.
bool Reveal(const std::string& stored, std::string* plain) {
  size_t prefix = sizeof(kSecretPrefix) - 1;
  if (stored.compare(0, prefix, kSecretPrefix) != 0 || (stored.size() - prefix) % 2 != 0) {
    return false;
  }
  plain->clear();
  for (size_t i = prefix, n = 0; i < stored.size(); i += 2, ++n) {
    int high = HexDigit(stored[i]);
    int low = HexDigit(stored[i + 1]);
    if (high < 0 || low < 0) return false;
    *plain += static_cast<char>((high << 4 | low) ^ kSecretKey[n % (sizeof(kSecretKey) - 1)]);
  }
  return true;
}

// A configuration file holds a few dozen short entries; one larger than this is not one, and
// reading it would only cost memory (each entry costs a map node).
constexpr int64_t kMaxConfigBytes = 1 << 20;

// Reads a regular file; creates it empty (mode 0600) when missing. A link, FIFO, device or
// folder at the path is refused at once: none can block or redirect the caller.
bool ReadOrCreate(const std::string& path, std::string* text) {
  using vistrel_host::ReadOutcome;
  ReadOutcome outcome = vistrel_host::ReadRegularFile(path, kMaxConfigBytes, text);
  if (outcome != ReadOutcome::kMissing) return outcome == ReadOutcome::kRead;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd >= 0) {
    close(fd);
    return true;
  }
  // Made by someone else meanwhile: read what is there now.
  return errno == EEXIST &&
         vistrel_host::ReadRegularFile(path, kMaxConfigBytes, text) == ReadOutcome::kRead;
}

void Store(iconfig* config, const char* name, const std::string& value) {
  if (!config || !ValidKey(name)) return;
  config->secrets.erase(name);
  auto it = config->values.find(name);
  if (it != config->values.end() && it->second == value) return;
  config->values[name] = value;
  config->changed = true;
}

}  // namespace

extern "C" iconfig* OpenConfig(const char* path, iconfigedit* /*edit*/) {
  return panelkit_internal::NoThrow(static_cast<iconfig*>(nullptr), [&]() -> iconfig* {
    if (!path || !*path) return nullptr;
    std::string host_path = vistrel_host::ResolveDevicePath(path);
    std::string text;
    if (!ReadOrCreate(host_path, &text)) return nullptr;
    auto config = std::make_unique<iconfig_s>();
    config->host_path = host_path;
    config->values = Parse(text);
    return config.release();
  });
}

extern "C" int SaveConfig(iconfig* config) {
  return panelkit_internal::NoThrow(0, [&] {
    if (!config) return 0;
    if (!config->changed) return 1;
    if (!vistrel_host::ReplaceFile(config->host_path, Serialize(config->values), 0600)) {
      return 0;
    }
    config->changed = false;
    return 1;
  });
}

extern "C" void CloseConfig(iconfig* config) {
  panelkit_internal::NoThrow([&] {
    if (!config) return;
    SaveConfig(config);
    delete config;
  });
}

extern "C" void CloseConfigNoSave(iconfig* config) { delete config; }

extern "C" const char* ReadString(iconfig* config, const char* name, const char* deflt) {
  return panelkit_internal::NoThrow(deflt, [&] {
    if (!config || !name) return deflt;
    auto it = config->values.find(name);
    return it == config->values.end() ? deflt : it->second.c_str();
  });
}

extern "C" int ReadInt(iconfig* config, const char* name, int deflt) {
  const char* text = ReadString(config, name, nullptr);
  if (!text) return deflt;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (end == text) return deflt;
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

extern "C" const char* ReadSecret(iconfig* config, const char* name, const char* deflt) {
  return panelkit_internal::NoThrow(deflt, [&] {
    if (!config || !name) return deflt;
    auto cached = config->secrets.find(name);
    if (cached != config->secrets.end()) return cached->second.c_str();
    auto it = config->values.find(name);
    if (it == config->values.end()) return deflt;
    std::string plain;
    // A value written as plain text (by hand, or by an older firmware) is taken as it is.
    if (!Reveal(it->second, &plain)) plain = it->second;
    return config->secrets.emplace(name, std::move(plain)).first->second.c_str();
  });
}

extern "C" void WriteString(iconfig* config, const char* name, const char* value) {
  panelkit_internal::NoThrow([&] { Store(config, name, value ? value : ""); });
}

extern "C" void WriteInt(iconfig* config, const char* name, int value) {
  panelkit_internal::NoThrow([&] { Store(config, name, std::to_string(value)); });
}

extern "C" void WriteSecret(iconfig* config, const char* name, const char* value) {
  panelkit_internal::NoThrow([&] { Store(config, name, Obfuscate(value ? value : "")); });
}
