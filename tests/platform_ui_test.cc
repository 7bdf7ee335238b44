// The host UI functions: messages and requests as events, tasks, file types, file removal and
// upper-casing.
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

using vistrel_test::DeviceTest;
using vistrel_test::Event;

std::string Upper(const char* text) {
  char* upper = utf_toupper_ext(text);
  EXPECT_NE(upper, nullptr);
  if (upper == nullptr) return "<null>";
  std::string result(upper);
  std::free(upper);
  return result;
}

class PlatformUiTest : public DeviceTest {};

TEST_F(PlatformUiTest, MessageAndRequestBecomeEvents) {
  Message(ICON_ERROR, "@DownloadError", "@DownloadError", 7000);
  Message(ICON_INFORMATION, nullptr, "two\tparts", 1500);

  char scan[] = "-scan:/mnt/ext1/Downloads";
  EXPECT_EQ(SendRequestTo(17, 84, scan, static_cast<int>(std::strlen(scan)), 0, 2000), 0);
  // Only `size` bytes are sent; binary bytes stay on one line.
  char binary[] = {'a', '\n', '\\', '\xff', '\0', 'z', 'q'};
  EXPECT_EQ(SendRequestTo(3, 9, binary, 6, 0, 100), 0);
  EXPECT_EQ(SendRequestTo(3, 10, nullptr, 0, 0, 100), 0);

  std::vector<Event> messages = EventsOfKind("message");
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].fields,
            (std::vector<std::string>{"message", "4", "@DownloadError", "@DownloadError", "7000"}));
  EXPECT_EQ(messages[1].fields,
            (std::vector<std::string>{"message", "1", "", "two\\x09parts", "1500"}));

  std::vector<Event> requests = EventsOfKind("request");
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].fields,
            (std::vector<std::string>{"request", "17", "84", "-scan:/mnt/ext1/Downloads"}));
  EXPECT_EQ(requests[1].fields,
            (std::vector<std::string>{"request", "3", "9", "a\\x0A\\\\\\xFF\\x00z"}));
  EXPECT_EQ(requests[2].at(2), "10");
  EXPECT_EQ(requests[2].at(3), "");
  EXPECT_EQ(Events().size(), 5u);
}

TEST_F(PlatformUiTest, TaskIsFoundOnlyWhenTheApplicationIsInstalled) {
  EXPECT_EQ(FindTaskByAppName("/kelmast/bin/scanner.app"), -1);
  EXPECT_EQ(FindTaskByAppName(nullptr), -1);
  EXPECT_EQ(FindTaskByAppName(""), -1);

  WriteDeviceFile("/kelmast/bin/scanner.app", "#!/bin/sh\n");
  int task = FindTaskByAppName("/kelmast/bin/scanner.app");
  EXPECT_GE(task, 0);
  EXPECT_EQ(FindTaskByAppName("/kelmast/bin/scanner.app"), task);
  // The host path itself is not a device path.
  EXPECT_EQ(FindTaskByAppName((device_root_ + "/kelmast/bin/browser.app").c_str()), -1);
}

TEST_F(PlatformUiTest, UnlinkRemovesTheDeviceFile) {
  WriteDeviceFile("/mnt/ext1/Downloads/a b.epub", "book");
  EXPECT_EQ(pk_unlink("/mnt/ext1/Downloads/a b.epub"), 0);
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/Downloads/a b.epub"));
  EXPECT_EQ(pk_unlink("/mnt/ext1/Downloads/a b.epub"), -1);
  EXPECT_EQ(pk_unlink(nullptr), -1);
}

TEST_F(PlatformUiTest, SupportedFileTypesEndWithANullExtension) {
  std::set<std::string> extensions;
  const ifiletype* type = GetSupportedFileTypes();
  ASSERT_NE(type, nullptr);
  for (; type->extension != nullptr; ++type) {
    ASSERT_LT(extensions.size(), 100u) << "table not terminated";
    extensions.insert(type->extension);
  }
  for (const char* wanted : {"epub", "pdf", "fb2", "txt", "rtf", "doc", "djvu", "djv", "mobi",
                             "prc", "chm", "htm", "html"}) {
    EXPECT_EQ(extensions.count(wanted), 1u) << wanted;
  }
  EXPECT_EQ(extensions.count("zip"), 0u);
  EXPECT_EQ(extensions.count("acsm"), 0u);
}

TEST_F(PlatformUiTest, UpperCasingCoversUnicodeAndKeepsInvalidBytes) {
  EXPECT_EQ(Upper("epub"), "EPUB");
  EXPECT_EQ(Upper(""), "");
  EXPECT_EQ(Upper("fb2.zip 1-9"), "FB2.ZIP 1-9");
  // Latin-1, Latin Extended-A, Greek and Cyrillic; ß has no single upper-case character.
  EXPECT_EQ(Upper("äöü éß ωж"), "ÄÖÜ Éß ΩЖ");
  EXPECT_EQ(Upper("łódź ÿ ё"), "ŁÓDŹ Ÿ Ё");
  // The dotless ı becomes a one-byte I: the result may be shorter than the input.
  EXPECT_EQ(Upper("ı"), "I");
  // Invalid UTF-8 passes through byte by byte: a lone continuation byte, a cut-off lead byte,
  // an overlong '/' and an encoded surrogate.
  EXPECT_EQ(Upper("a\x80z"), "A\x80Z");
  EXPECT_EQ(Upper("x\xC3"), "X\xC3");
  EXPECT_EQ(Upper("\xC0\xAFq"), "\xC0\xAFQ");
  EXPECT_EQ(Upper("\xED\xA0\x80s"), "\xED\xA0\x80S");
  EXPECT_EQ(utf_toupper_ext(nullptr), nullptr);
}

}  // namespace
