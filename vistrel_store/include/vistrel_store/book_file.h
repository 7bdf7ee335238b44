// Names of purchased e-book files on the device. A book's file is found again by deriving
// the same name from the book; no list of files is kept.
#ifndef VISTREL_STORE_BOOK_FILE_H_
#define VISTREL_STORE_BOOK_FILE_H_

#include <string>
#include <tuple>

#include "vistrel_store/book.h"
#include "vistrel_store/export.h"

// The extension (without dot) for a MIME type, matched by prefix in a fixed table: an HTML
// page is "htm", any Mobipocket type "prc"; "" when no row matches.
VISTREL_STORE_EXPORT std::string ExtentionByMime(const std::string& mime);

// Splits a path at its last dot into (name, extension without dot); a leading dot or a dot in
// a folder name gives (path, "").
VISTREL_STORE_EXPORT std::tuple<std::string, std::string> ParseToNameExtention(
    const std::string& path);

// Makes a file-name component of at most `max_chars` UTF-8 characters: drops " ' * / : < > ? \ ` |
// (and "#" when `drop_hash`), puts "_" before a leading dot, never splits a character.
VISTREL_STORE_EXPORT std::string VerifyFilename(const char* text, unsigned int max_chars,
                                                bool drop_hash);

// "<Author> - <Title>.<format in lower case>", cleaned, at most 255 characters.
VISTREL_STORE_EXPORT std::string GenerateBookShortFileName(const norbel::vistrel::Book& book);
// "/mnt/ext1/Downloads/" + the short file name.
VISTREL_STORE_EXPORT std::string GenerateBookFileName(const norbel::vistrel::Book& book);
// The device path of the book's file, or "" when it is not on the device. Looks for the
// download name, the same name as .epub, .pdf or .acsm, then the title in the Adobe Digital
// Editions folder as .epub or .pdf.
VISTREL_STORE_EXPORT std::string GetBookFile(const norbel::vistrel::Book& book);

#endif  // VISTREL_STORE_BOOK_FILE_H_
