// Names of purchased e-book files: the MIME table, path splitting, name cleaning, the names
// derived from a book and the search for a book's file on the device.
#include "vistrel_store/book_file.h"

#include <string>
#include <tuple>

#include "support/device_fixture.h"

namespace {

using norbel::vistrel::Book;
using vistrel_test::DeviceTest;

Book MakeBook(const std::string& author, const std::string& title, const std::string& type) {
  Book book;
  book.string_props_[Book::Author] = author;
  book.string_props_[Book::Title] = title;
  book.string_props_[Book::EbookType] = type;
  return book;
}

std::tuple<std::string, std::string> Split(const std::string& name, const std::string& ext) {
  return std::make_tuple(name, ext);
}

// The first row whose type is a prefix wins, byte for byte: no case folding, no trimming.
TEST(ExtentionByMimeTest, FirstRowWhoseTypeIsAPrefixWins) {
  const std::pair<const char*, const char*> cases[] = {{"text/plain", "txt"},
                                                       {"text/xml", "fb2"},
                                                       {"application/x-chm", "chm"},
                                                       {"text/rtf", "rtf"},
                                                       {"application/msword", "doc"},
                                                       {"application/pdf", "pdf"},
                                                       {"image/x-djvu", "djvu"},
                                                       {"image/vnd.djvu", "djv"},
                                                       {"application/epub+zip", "epub"},
                                                       {"application/vnd.adobe.adept+xml", "acsm"},
                                                       {"text/html", "htm"},
                                                       {"application/x-mobipocket-ebook", "prc"},
                                                       {"text/html; charset=utf-8", "htm"},
                                                       {"application/pdfx", "pdf"},
                                                       {"TEXT/PLAIN", ""},
                                                       {" text/plain", ""},
                                                       {"text/pla", ""},
                                                       {"application/force-download", ""},
                                                       {"", ""}};
  for (const auto& [mime, ext] : cases) EXPECT_EQ(ExtentionByMime(mime), ext) << mime;
}

// Only the last dot of the file name splits; a dot in the path's first byte does not.
TEST(ParseToNameExtentionTest, OnlyTheLastDotOfTheFileNameSplits) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"book.fb2.zip", "book.fb2", "zip"},
      {"name.", "name", ""},
      {"a.b/c.d", "a.b/c", "d"},
      {".hidden", ".hidden", ""},
      {"noext", "noext", ""},
      {"", "", ""},
      {"/mnt/ext1/a.dir/file", "/mnt/ext1/a.dir/file", ""},
      {"a.dir/", "a.dir/", ""},
      {"/mnt/.hidden", "/mnt/", "hidden"}};
  for (const auto& [path, name, ext] : cases)
    EXPECT_EQ(ParseToNameExtention(path), Split(name, ext)) << path;
}

// Forbidden bytes (and "#" on request) are dropped; no name starts with "." or a kept "#";
// the limit counts characters after dropping, never splits one and leaves out the "_".
TEST(VerifyFilenameTest, CleansNamesAndLimitsCharacters) {
  const struct {
    const char* in;
    unsigned int limit;
    bool drop_hash;
    const char* out;
  } cases[] = {
      {"a:b?c", 255, true, "abc"},
      {"x\"y'z*1/2:3<4>5?6\\7`8|9", 255, false, "xyz123456789"},
      {"#x", 255, true, "x"},
      {"a#b", 255, false, "a#b"},
      {"a\tb c-d_e!%&()", 255, true, "a\tb c-d_e!%&()"},
      {".abc", 255, true, "_.abc"},
      {"#x", 255, false, "_#x"},
      {"/.x", 255, true, "_.x"},
      {".ab", 2, true, "_.a"},
      {"abcdef", 3, true, "abc"},
      {"äbc", 2, true, "äb"},
      {"abäd", 3, true, "abä"},
      {"a\xF0\x9F\x98\x80"
       "b",
       2, true, "a\xF0\x9F\x98\x80"},
      {"a::::b", 2, true, "ab"},
      {"\x80\x80xy", 1, true, "\x80\x80x"},  // stray continuation bytes are not counted
      {"ä", 0, true, ""},
      {".abc", 0, true, "_"},
      {"#a", 0, true, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(VerifyFilename(c.in, c.limit, c.drop_hash), c.out)
        << c.in << " " << c.limit << " " << c.drop_hash;
  }
}

// "<author> - <title>.<format in lower case>", cleaned and cut to 255 characters, the
// extension included; absent properties read as "" and are not added to the book.
TEST(BookFileNameTest, NameIsAuthorTitleAndLowerCaseFormat) {
  std::string umlauts;
  for (int i = 0; i < 200; ++i) umlauts += "ä";  // 200 characters, not 400: nothing is cut
  const std::string a247(247, 'a'), a250(250, 'a');
  const std::tuple<Book, std::string> cases[] = {
      {MakeBook("Anna Müller", "Wege: 1/2", "EPUB"), "Anna Müller - Wege 12.epub"},
      {MakeBook("A", "B", "Fb2.ZIP"), "A - B.fb2.zip"},
      {MakeBook("A", "B", ""), "A - B"},
      {MakeBook("A", "B", "ÄPUB"), "A - B.Äpub"},  // only ASCII letters are lowered
      {MakeBook(a247, "T", "EPUB"), a247 + " - T.epu"},
      {MakeBook(a250, "bcdef", "PDF"), a250 + " - bc"},
      {MakeBook(umlauts, "T", "PDF"), umlauts + " - T.pdf"},
      {Book(), " - "},
  };
  for (const auto& [book, name] : cases) {
    EXPECT_EQ(GenerateBookShortFileName(book), name);
    EXPECT_EQ(GenerateBookFileName(book), "/mnt/ext1/Downloads/" + name);
  }
  Book title_only;
  title_only.string_props_[Book::Title] = "?Wer*";
  EXPECT_EQ(GenerateBookShortFileName(title_only), " - Wer");
  EXPECT_EQ(title_only.string_props_.size(), 1u);
}

class GetBookFileTest : public DeviceTest {};

TEST_F(GetBookFileTest, SearchesDownloadNameThenOtherTypesThenDigitalEditions) {
  Book book = MakeBook("Anna", "Wege: 1/2", "MOBI");
  EXPECT_EQ(GetBookFile(book), "");
  // Each file added outranks the ones before it; an empty file counts.
  for (const char* path :
       {"/mnt/ext1/Digital Editions/Wege 12.pdf", "/mnt/ext1/Digital Editions/Wege 12.epub",
        "/mnt/ext1/Downloads/Anna - Wege 12.acsm", "/mnt/ext1/Downloads/Anna - Wege 12.pdf",
        "/mnt/ext1/Downloads/Anna - Wege 12.epub", "/mnt/ext1/Downloads/Anna - Wege 12.mobi"}) {
    WriteDeviceFile(path, "");
    EXPECT_EQ(GetBookFile(book), path);
  }
  EXPECT_EQ(book.string_props_.size(), 3u);

  Book empty;  // looked up unchanged
  WriteDeviceFile("/mnt/ext1/Digital Editions/.epub", "x");
  EXPECT_EQ(GetBookFile(empty), "/mnt/ext1/Digital Editions/.epub");
  WriteDeviceFile("/mnt/ext1/Downloads/ - ", "x");
  EXPECT_EQ(GetBookFile(empty), "/mnt/ext1/Downloads/ - ");
  EXPECT_TRUE(empty.string_props_.empty());
}

TEST_F(GetBookFileTest, FindsFilesWhoseTypeDiffersFromTheShopsFormat) {
  // Sold as PDF, delivered as EPUB; without a format there is no extension to replace.
  WriteDeviceFile("/mnt/ext1/Downloads/X - Y.epub", "x");
  EXPECT_EQ(GetBookFile(MakeBook("X", "Y", "PDF")), "/mnt/ext1/Downloads/X - Y.epub");
  EXPECT_EQ(GetBookFile(MakeBook("X", "Y", "")), "/mnt/ext1/Downloads/X - Y.epub");
  // Other types are not searched for.
  WriteDeviceFile("/mnt/ext1/Downloads/P - Q.fb2", "x");
  EXPECT_EQ(GetBookFile(MakeBook("P", "Q", "PDF")), "");
  // A dot in the title of a book without format is taken for the extension's dot.
  WriteDeviceFile("/mnt/ext1/Downloads/A - Vol.pdf", "x");
  EXPECT_EQ(GetBookFile(MakeBook("A", "Vol. 2", "")), "/mnt/ext1/Downloads/A - Vol.pdf");
}

}  // namespace
