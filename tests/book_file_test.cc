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

TEST(ExtentionByMimeTest, FirstRowWhoseTypeIsAPrefixWins) {
  EXPECT_EQ(ExtentionByMime("text/plain"), "txt");
  EXPECT_EQ(ExtentionByMime("text/xml"), "fb2");
  EXPECT_EQ(ExtentionByMime("application/x-chm"), "chm");
  EXPECT_EQ(ExtentionByMime("text/rtf"), "rtf");
  EXPECT_EQ(ExtentionByMime("application/msword"), "doc");
  EXPECT_EQ(ExtentionByMime("application/pdf"), "pdf");
  EXPECT_EQ(ExtentionByMime("image/x-djvu"), "djvu");
  EXPECT_EQ(ExtentionByMime("image/vnd.djvu"), "djv");
  EXPECT_EQ(ExtentionByMime("application/epub+zip"), "epub");
  EXPECT_EQ(ExtentionByMime("application/vnd.adobe.adept+xml"), "acsm");
  // The earlier, shorter row shadows the later one.
  EXPECT_EQ(ExtentionByMime("text/html"), "htm");
  EXPECT_EQ(ExtentionByMime("application/x-mobipocket"), "prc");
  EXPECT_EQ(ExtentionByMime("application/x-mobipocket-ebook"), "prc");
  // Anything behind the type still matches.
  EXPECT_EQ(ExtentionByMime("text/html; charset=utf-8"), "htm");
  EXPECT_EQ(ExtentionByMime("application/pdfx"), "pdf");
  // Byte-exact: no case folding, no trimming, no partial types.
  EXPECT_EQ(ExtentionByMime("TEXT/PLAIN"), "");
  EXPECT_EQ(ExtentionByMime(" text/plain"), "");
  EXPECT_EQ(ExtentionByMime("text/pla"), "");
  EXPECT_EQ(ExtentionByMime("application/force-download"), "");
  EXPECT_EQ(ExtentionByMime(""), "");
}

TEST(ParseToNameExtentionTest, OnlyTheLastDotOfTheFileNameSplits) {
  EXPECT_EQ(ParseToNameExtention("book.fb2.zip"), Split("book.fb2", "zip"));
  EXPECT_EQ(ParseToNameExtention("/mnt/ext1/Downloads/A - B.epub"),
            Split("/mnt/ext1/Downloads/A - B", "epub"));
  EXPECT_EQ(ParseToNameExtention("name."), Split("name", ""));
  EXPECT_EQ(ParseToNameExtention("a.b/c.d"), Split("a.b/c", "d"));
  // A dot in the first byte, none at all, or one in a folder name: no extension.
  EXPECT_EQ(ParseToNameExtention(".hidden"), Split(".hidden", ""));
  EXPECT_EQ(ParseToNameExtention("noext"), Split("noext", ""));
  EXPECT_EQ(ParseToNameExtention(""), Split("", ""));
  EXPECT_EQ(ParseToNameExtention("/mnt/ext1/a.dir/file"), Split("/mnt/ext1/a.dir/file", ""));
  EXPECT_EQ(ParseToNameExtention("a.dir/"), Split("a.dir/", ""));
  // Only the path's first byte protects a dot; a hidden file in a folder is split.
  EXPECT_EQ(ParseToNameExtention("/mnt/.hidden"), Split("/mnt/", "hidden"));
}

TEST(VerifyFilenameTest, DropsForbiddenBytesAndHashOnRequest) {
  EXPECT_EQ(VerifyFilename("a:b?c", 255, true), "abc");
  EXPECT_EQ(VerifyFilename("\"'*/:<>?\\`|", 255, true), "");
  EXPECT_EQ(VerifyFilename("x\"y'z*1/2:3<4>5?6\\7`8|9", 255, false), "xyz123456789");
  EXPECT_EQ(VerifyFilename("#x", 255, true), "x");
  EXPECT_EQ(VerifyFilename("a#b", 255, true), "ab");
  EXPECT_EQ(VerifyFilename("a#b", 255, false), "a#b");
  // Everything else is kept, spaces and control characters included.
  EXPECT_EQ(VerifyFilename("a\tb c-d_e!%&()", 255, true), "a\tb c-d_e!%&()");
  EXPECT_EQ(VerifyFilename("", 255, true), "");
}

TEST(VerifyFilenameTest, NoNameStartsWithADot) {
  EXPECT_EQ(VerifyFilename(".abc", 255, true), "_.abc");
  EXPECT_EQ(VerifyFilename("..", 255, true), "_..");
  EXPECT_EQ(VerifyFilename("a.b", 255, true), "a.b");
  // A hash kept as a name character is treated like a dot.
  EXPECT_EQ(VerifyFilename("#x", 255, false), "_#x");
  // What counts is the result so far, not the input's first byte.
  EXPECT_EQ(VerifyFilename("/.x", 255, true), "_.x");
  EXPECT_EQ(VerifyFilename("#.x", 255, true), "_.x");
  // The "_" does not count towards the limit.
  EXPECT_EQ(VerifyFilename(".ab", 2, true), "_.a");
}

TEST(VerifyFilenameTest, LimitCountsCharactersAndNeverSplitsOne) {
  EXPECT_EQ(VerifyFilename("abcdef", 3, true), "abc");
  EXPECT_EQ(VerifyFilename("äbc", 2, true), "äb");
  // The last allowed character keeps all its continuation bytes.
  EXPECT_EQ(VerifyFilename("abäd", 3, true), "abä");
  EXPECT_EQ(VerifyFilename("a\xF0\x9F\x98\x80"
                           "b",
                           2, true),
            "a\xF0\x9F\x98\x80");
  EXPECT_EQ(VerifyFilename("жжжж", 3, true), "жжж");
  // Dropped bytes are not counted.
  EXPECT_EQ(VerifyFilename("a::::b", 2, true), "ab");
  // DEL and stray continuation bytes are copied without being counted.
  EXPECT_EQ(VerifyFilename("a\x7F"
                           "b",
                           1, true),
            "a\x7F");
  EXPECT_EQ(VerifyFilename("\x80\x80xy", 1, true), "\x80\x80x");
}

TEST(VerifyFilenameTest, ZeroLimitKeepsOnlyTheLeadingUnderscore) {
  EXPECT_EQ(VerifyFilename("abc", 0, true), "");
  EXPECT_EQ(VerifyFilename("ä", 0, true), "");
  EXPECT_EQ(VerifyFilename(".abc", 0, true), "_");
  EXPECT_EQ(VerifyFilename("#a", 0, false), "_");
  EXPECT_EQ(VerifyFilename("#a", 0, true), "");
  EXPECT_EQ(VerifyFilename("\x80"
                           "a",
                           0, true),
            "\x80");
}

TEST(BookFileNameTest, NameIsAuthorTitleAndLowerCaseFormat) {
  Book book = MakeBook("Anna Müller", "Wege: 1/2", "EPUB");
  EXPECT_EQ(GenerateBookShortFileName(book), "Anna Müller - Wege 12.epub");
  EXPECT_EQ(GenerateBookFileName(book), "/mnt/ext1/Downloads/Anna Müller - Wege 12.epub");
  EXPECT_EQ(book.string_props_.size(), 3u);

  EXPECT_EQ(GenerateBookShortFileName(MakeBook("A", "B", "Fb2.ZIP")), "A - B.fb2.zip");
  EXPECT_EQ(GenerateBookShortFileName(MakeBook("A", "B", "")), "A - B");
  // Characters that are not ASCII letters keep their case in the extension.
  EXPECT_EQ(GenerateBookShortFileName(MakeBook("A", "B", "ÄPUB")), "A - B.Äpub");

  // Absent properties read as "" and are not added.
  Book empty;
  EXPECT_EQ(GenerateBookShortFileName(empty), " - ");
  EXPECT_EQ(GenerateBookFileName(empty), "/mnt/ext1/Downloads/ - ");
  EXPECT_TRUE(empty.string_props_.empty());

  Book title_only;
  title_only.string_props_[Book::Title] = "?Wer*";
  EXPECT_EQ(GenerateBookShortFileName(title_only), " - Wer");
  EXPECT_EQ(title_only.string_props_.size(), 1u);
}

TEST(BookFileNameTest, LimitOf255CharactersCoversTheExtension) {
  // 247 + " - " + "T" = 251 characters: ".epub" is cut to ".epu".
  EXPECT_EQ(GenerateBookShortFileName(MakeBook(std::string(247, 'a'), "T", "EPUB")),
            std::string(247, 'a') + " - T.epu");
  // 250 + " - " = 253: the title is cut and no extension is written.
  EXPECT_EQ(GenerateBookShortFileName(MakeBook(std::string(250, 'a'), "bcdef", "PDF")),
            std::string(250, 'a') + " - bc");
  // 200 two-byte characters are 200 characters, not 400: nothing is cut.
  std::string umlauts;
  for (int i = 0; i < 200; ++i) umlauts += "ä";
  EXPECT_EQ(GenerateBookShortFileName(MakeBook(umlauts, "T", "PDF")), umlauts + " - T.pdf");
}

class GetBookFileTest : public DeviceTest {};

TEST_F(GetBookFileTest, SearchesDownloadNameThenOtherTypesThenDigitalEditions) {
  Book book = MakeBook("Anna", "Wege: 1/2", "MOBI");
  EXPECT_EQ(GetBookFile(book), "");

  // Each file added outranks the ones before it.
  WriteDeviceFile("/mnt/ext1/Digital Editions/Wege 12.pdf", "x");
  EXPECT_EQ(GetBookFile(book), "/mnt/ext1/Digital Editions/Wege 12.pdf");
  WriteDeviceFile("/mnt/ext1/Digital Editions/Wege 12.epub", "x");
  EXPECT_EQ(GetBookFile(book), "/mnt/ext1/Digital Editions/Wege 12.epub");
  WriteDeviceFile("/mnt/ext1/Downloads/Anna - Wege 12.acsm", "x");
  EXPECT_EQ(GetBookFile(book), "/mnt/ext1/Downloads/Anna - Wege 12.acsm");
  WriteDeviceFile("/mnt/ext1/Downloads/Anna - Wege 12.pdf", "x");
  EXPECT_EQ(GetBookFile(book), "/mnt/ext1/Downloads/Anna - Wege 12.pdf");
  WriteDeviceFile("/mnt/ext1/Downloads/Anna - Wege 12.epub", "x");
  EXPECT_EQ(GetBookFile(book), "/mnt/ext1/Downloads/Anna - Wege 12.epub");
  WriteDeviceFile("/mnt/ext1/Downloads/Anna - Wege 12.mobi", "");  // empty still counts
  EXPECT_EQ(GetBookFile(book), "/mnt/ext1/Downloads/Anna - Wege 12.mobi");
  EXPECT_EQ(book.string_props_.size(), 3u);
}

TEST_F(GetBookFileTest, FindsFilesWhoseTypeDiffersFromTheShopsFormat) {
  // Sold as PDF, delivered as EPUB.
  WriteDeviceFile("/mnt/ext1/Downloads/X - Y.epub", "x");
  EXPECT_EQ(GetBookFile(MakeBook("X", "Y", "PDF")), "/mnt/ext1/Downloads/X - Y.epub");
  // Without a format the download name has no extension to replace.
  EXPECT_EQ(GetBookFile(MakeBook("X", "Y", "")), "/mnt/ext1/Downloads/X - Y.epub");
  // Other types are not searched for.
  WriteDeviceFile("/mnt/ext1/Downloads/P - Q.fb2", "x");
  EXPECT_EQ(GetBookFile(MakeBook("P", "Q", "PDF")), "");
  // A dot in the title of a book without format is taken for the extension's dot.
  WriteDeviceFile("/mnt/ext1/Downloads/A - Vol.pdf", "x");
  EXPECT_EQ(GetBookFile(MakeBook("A", "Vol. 2", "")), "/mnt/ext1/Downloads/A - Vol.pdf");
}

TEST_F(GetBookFileTest, BookWithoutPropertiesIsLookedUpUnchanged) {
  Book empty;
  EXPECT_EQ(GetBookFile(empty), "");
  EXPECT_TRUE(empty.string_props_.empty());
  WriteDeviceFile("/mnt/ext1/Digital Editions/.epub", "x");
  EXPECT_EQ(GetBookFile(empty), "/mnt/ext1/Digital Editions/.epub");
  WriteDeviceFile("/mnt/ext1/Downloads/ - ", "x");
  EXPECT_EQ(GetBookFile(empty), "/mnt/ext1/Downloads/ - ");
  EXPECT_TRUE(empty.string_props_.empty());
}

}  // namespace
