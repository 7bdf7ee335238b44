#include "vistrel_store/book_file.h"

#include <unistd.h>

#include <cstring>

#include "nbutils/device_environment.h"
#include "nbutils/string_utils.h"

namespace {

using norbel::vistrel::Book;

const char kDownloadFolder[] = "/mnt/ext1/Downloads/";
const char kDigitalEditionsFolder[] = "/mnt/ext1/Digital Editions";

// Matched by prefix in this order, so the second "text/html" row and the
// "application/x-mobipocket-ebook" row are never chosen: HTML is always ".htm" and every
// Mobipocket file ".prc". The rows stay as they are.
const char* const kMimeExtensions[14][2] = {
    {"text/plain", "txt"},
    {"text/xml", "fb2"},
    {"text/html", "htm"},
    {"text/html", "html"},
    {"application/x-chm", "chm"},
    {"text/rtf", "rtf"},
    {"application/msword", "doc"},
    {"application/x-mobipocket", "prc"},
    {"application/x-mobipocket-ebook", "mobi"},
    {"application/pdf", "pdf"},
    {"image/x-djvu", "djvu"},
    {"image/vnd.djvu", "djv"},
    {"application/epub+zip", "epub"},
    {"application/vnd.adobe.adept+xml", "acsm"},
};

// An absent property reads as "" and is not added: the book is not ours to change.
std::string StringProp(const Book& book, Book::StringProps prop) {
  auto it = book.string_props_.find(prop);
  return it == book.string_props_.end() ? std::string() : it->second;
}

bool DeviceFileExists(const std::string& path) {
  return access(norbel::utilities::DevicePath(path).c_str(), F_OK) == 0;
}

// Bytes that no file system of the device accepts in a name.
bool IsDroppedByte(char byte) { return std::strchr("\"'*/:<>?\\`|", byte) != nullptr; }

// The first byte of a character: ASCII (below DEL) or a UTF-8 lead byte.
bool StartsCharacter(unsigned char byte) { return byte < 0x7F || (byte & 0xC0) == 0xC0; }

}  // namespace

std::string ExtentionByMime(const std::string& mime) {
  for (const auto& row : kMimeExtensions) {
    if (mime.compare(0, std::strlen(row[0]), row[0]) == 0) return row[1];
  }
  return std::string();
}

std::tuple<std::string, std::string> ParseToNameExtention(const std::string& path) {
  size_t dot = path.rfind('.');
  if (dot == std::string::npos || dot == 0 || path.find('/', dot) != std::string::npos) {
    return std::make_tuple(path, std::string());
  }
  return std::make_tuple(path.substr(0, dot), path.substr(dot + 1));
}

std::string VerifyFilename(const char* text, unsigned int max_chars, bool drop_hash) {
  std::string result;
  unsigned int count = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    char byte = *p;
    if (IsDroppedByte(byte)) continue;
    if (byte == '#' && drop_hash) continue;
    // No name may start with a dot; the "_" does not count towards the limit.
    if ((byte == '.' || byte == '#') && result.empty()) result += '_';
    if (StartsCharacter(static_cast<unsigned char>(byte))) {
      if (count == max_chars) break;
      ++count;
    }
    result += byte;
  }
  return result;
}

std::string GenerateBookShortFileName(const Book& book) {
  std::string name = StringProp(book, Book::Author) + " - " + StringProp(book, Book::Title);
  std::string type = StringProp(book, Book::EbookType);
  if (!type.empty()) name += "." + norbel::utilities::ToLower(type);
  // The limit covers the extension too, so a very long name loses it.
  return VerifyFilename(name.c_str(), 255, true);
}

std::string GenerateBookFileName(const Book& book) {
  return kDownloadFolder + GenerateBookShortFileName(book);
}

std::string GetBookFile(const Book& book) {
  std::string path = GenerateBookFileName(book);
  if (DeviceFileExists(path)) return path;

  // The shop's format may differ from the type that the download turned out to be.
  std::string name = std::get<0>(ParseToNameExtention(path));
  for (const char* ext : {".epub", ".pdf", ".acsm"}) {
    if (DeviceFileExists(name + ext)) return name + ext;
  }

  // Books fulfilled through Adobe Digital Editions are stored there under their title.
  std::string title = StringProp(book, Book::Title);
  std::string adobe_name =
      std::string(kDigitalEditionsFolder) + "/" + VerifyFilename(title.c_str(), 255, true);
  for (const char* ext : {".epub", ".pdf"}) {
    if (DeviceFileExists(adobe_name + ext)) return adobe_name + ext;
  }
  return std::string();
}
