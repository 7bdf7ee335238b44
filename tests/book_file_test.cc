// Names of purchased e-book files: the MIME table, path splitting, name cleaning, the names
// derived from a book and the search for a book's file on the device.
#include "vistrel_store/book_file.h"

#include <string>
#include <tuple>

#include "support/device_fixture.h"

namespace {

using norbel::vistrel::Book;

Book MakeBook(const std::string& author, const std::string& title, const std::string& type) {
  Book book;
  book.string_props_[Book::Author] = author;
  book.string_props_[Book::Title] = title;
  book.string_props_[Book::EbookType] = type;
  return book;
}

// The first row whose type is a prefix wins, byte for byte: no case folding, no trimming.
TEST(BookFileTest, ExtentionByMimeAndSplitting) {
  EXPECT_EQ(ExtentionByMime("image/vnd.djvu"), "djv");
  EXPECT_EQ(ExtentionByMime("text/html; charset=utf-8"), "htm");
  EXPECT_EQ(ExtentionByMime("application/pdfx"), "pdf");
  EXPECT_EQ(ExtentionByMime("TEXT/PLAIN") + ExtentionByMime(" text/plain"), "");
  // Only the last dot of the file name splits.
  EXPECT_EQ(ParseToNameExtention("book.fb2.zip"), std::make_tuple("book.fb2", "zip"));
  EXPECT_EQ(ParseToNameExtention("a.dir/file"), std::make_tuple("a.dir/file", ""));
}

// Forbidden bytes (and "#" on request) are dropped; no name starts with "." or a kept "#";
// the limit counts characters after dropping, never splits one and leaves out the "_".
TEST(BookFileTest, VerifyFilenameCleansAndLimitsCharacters) {
  const std::tuple<const char*, unsigned int, bool, const char*> cases[] = {
      {"x\"y'z*1/2:3<4>5?6\\7`8|9", 255, false, "xyz123456789"},
      {"#x", 255, true, "x"},
      {"#x", 255, false, "_#x"},
      {".ab", 2, true, "_.a"},
      {"abäd", 3, true, "abä"},
      {"a\xF0\x9F\x98\x80"
       "b",
       2, true, "a\xF0\x9F\x98\x80"},
      {"a::::b", 2, true, "ab"},
      {".abc", 0, true, "_"},
      {"\x80\x80xy", 1, true, "\x80\x80x"},  // stray continuation bytes are not counted
      {"#a", 0, true, ""}};
  for (const auto& [in, limit, drop_hash, out] : cases)
    EXPECT_EQ(VerifyFilename(in, limit, drop_hash), out) << in << " " << limit;
}

// "<author> - <title>.<format in lower case>", cleaned and cut to 255 characters.
TEST(BookFileTest, NameIsAuthorTitleAndLowerCaseFormat) {
  const std::string a247(247, 'a');
  std::string umlauts;
  for (int i = 0; i < 200; ++i) umlauts += "ä";  // 200 characters, not 400: nothing is cut
  EXPECT_EQ(GenerateBookFileName(MakeBook("Anna Müller", "Wege: 1/2", "EPUB")),
            "/mnt/ext1/Downloads/Anna Müller - Wege 12.epub");
  EXPECT_EQ(GenerateBookShortFileName(MakeBook(a247, "T", "EPUB")), a247 + " - T.epu");
  EXPECT_EQ(GenerateBookShortFileName(MakeBook(umlauts, "T", "PDF")), umlauts + " - T.pdf");
  EXPECT_EQ(GenerateBookShortFileName(Book()), " - ");
}

class GetBookFileTest : public vistrel_test::DeviceTest {};

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
  WriteDeviceFile("/mnt/ext1/Downloads/P - Q.fb2", "x");  // other types are not searched for
  EXPECT_EQ(GetBookFile(MakeBook("P", "Q", "PDF")), "");
  Book empty;  // looked up unchanged
  WriteDeviceFile("/mnt/ext1/Downloads/ - ", "x");
  EXPECT_EQ(GetBookFile(empty), "/mnt/ext1/Downloads/ - ");
  EXPECT_TRUE(empty.string_props_.empty());
}

}  // namespace
