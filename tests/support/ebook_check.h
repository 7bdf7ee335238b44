// Structural checks of e-book files, for tests: each returns "" for a sound file, else what
// is wrong with it.
#ifndef TESTS_SUPPORT_EBOOK_CHECK_H_
#define TESTS_SUPPORT_EBOOK_CHECK_H_

#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace vistrel_test {

inline uint32_t Le(const std::string& data, size_t at, int bytes) {
  uint32_t value = 0;
  for (int i = bytes - 1; i >= 0; --i)
    value = (value << 8) | static_cast<unsigned char>(data[at + i]);
  return value;
}

// An EPUB container: a zip whose first entry is the stored, extra-less "mimetype" with
// "application/epub+zip", every local entry stored with a matching CRC-32, a central directory
// that lists them all, and a container.xml that names the package document.
inline std::string EpubProblem(const std::string& data) {
  if (data.size() < 58 || Le(data, 0, 4) != 0x04034b50) return "no zip local header at 0";
  if (data.compare(30, 8, "mimetype") != 0 || Le(data, 26, 2) != 8)
    return "first entry not mimetype";
  if (Le(data, 8, 2) != 0) return "mimetype is compressed";
  if (Le(data, 28, 2) != 0) return "mimetype has an extra field";
  if (data.compare(38, 20, "application/epub+zip") != 0) return "wrong mimetype content";
  size_t at = 0;
  int entries = 0;
  std::string container;
  while (at + 30 <= data.size() && Le(data, at, 4) == 0x04034b50) {
    const uint32_t crc = Le(data, at + 14, 4);
    const uint32_t size = Le(data, at + 18, 4);
    const uint32_t name_size = Le(data, at + 26, 2);
    const uint32_t extra_size = Le(data, at + 28, 2);
    if (Le(data, at + 8, 2) != 0 || Le(data, at + 22, 4) != size) return "entry not stored";
    const size_t content = at + 30 + name_size + extra_size;
    if (content + size > data.size()) return "entry runs past the end";
    const std::string name = data.substr(at + 30, name_size);
    const uint32_t actual = static_cast<uint32_t>(
        crc32(0L, reinterpret_cast<const Bytef*>(data.data() + content), size));
    if (actual != crc) return "bad CRC-32 of " + name;
    if (name == "META-INF/container.xml") container = data.substr(content, size);
    ++entries;
    at = content + size;
  }
  const size_t end = data.size() - 22;  // no archive comment
  if (Le(data, end, 4) != 0x06054b50) return "no end of central directory record";
  if (static_cast<int>(Le(data, end + 10, 2)) != entries) return "central directory count";
  if (Le(data, end + 16, 4) != at) return "central directory not after the entries";
  if (container.find("full-path=\"") == std::string::npos) return "no container.xml rootfile";
  return "";
}

// A PDF: header, trailer, a startxref that points at the xref table, and xref entries that
// each point at their object.
inline std::string PdfProblem(const std::string& data) {
  if (data.compare(0, 8, "%PDF-1.4") != 0) return "no %PDF-1.4 header";
  if (data.size() < 6 || data.compare(data.size() - 6, 6, "%%EOF\n") != 0) return "no %%EOF";
  const size_t startxref = data.rfind("startxref\n");
  if (startxref == std::string::npos) return "no startxref";
  const size_t xref = std::strtoul(data.c_str() + startxref + 10, nullptr, 10);
  if (data.compare(xref, 5, "xref\n") != 0) return "startxref does not point at xref";
  const size_t header_end = data.find('\n', xref + 5);
  const int count = std::atoi(data.c_str() + data.find(' ', xref + 5) + 1);
  if (count < 2) return "xref too short";
  for (int object = 1; object < count; ++object) {
    const size_t entry = header_end + 1 + 20 * static_cast<size_t>(object);
    if (data.compare(entry + 10, 10, " 00000 n \n") != 0) return "malformed xref entry";
    const size_t offset = std::strtoul(data.substr(entry, 10).c_str(), nullptr, 10);
    const std::string expected = std::to_string(object) + " 0 obj";
    if (data.compare(offset, expected.size(), expected) != 0) return "xref misses " + expected;
  }
  if (data.find("/Root 1 0 R") == std::string::npos) return "no /Root in the trailer";
  return "";
}

}  // namespace vistrel_test

#endif  // TESTS_SUPPORT_EBOOK_CHECK_H_
