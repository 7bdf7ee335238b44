// The host UI functions: messages and requests as event lines, device paths, and upper-casing.
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

using PlatformUiTest = vistrel_test::DeviceTest;

TEST_F(PlatformUiTest, MessageAndRequestBecomeEventLines) {
  Message(ICON_ERROR, "@DownloadError", "two\tparts", 7000);
  // Only `size` bytes are sent; binary bytes stay on one line.
  char binary[] = {'a', '\n', '\\', '\xff', '\0', 'z', 'q'};
  EXPECT_EQ(SendRequestTo(3, 9, binary, 6, 0, 100), 0);
  const std::vector<vistrel_test::Event> events = Events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].fields,
            (std::vector<std::string>{"message", "4", "@DownloadError", "two\\x09parts", "7000"}));
  EXPECT_EQ(events[1].fields,
            (std::vector<std::string>{"request", "3", "9", "a\\x0A\\\\\\xFF\\x00z"}));
}

TEST_F(PlatformUiTest, TasksAndFilesAreNamedByDevicePath) {
  WriteDeviceFile("/kelmast/bin/scanner.app", "#!/bin/sh\n");
  EXPECT_GE(FindTaskByAppName("/kelmast/bin/scanner.app"), 0);
  EXPECT_EQ(FindTaskByAppName((device_root_ + "/kelmast/bin/scanner.app").c_str()), -1);
  EXPECT_EQ(pk_unlink("/kelmast/bin/scanner.app"), 0);
  EXPECT_FALSE(DeviceFileExists("/kelmast/bin/scanner.app"));
}

// Latin-1, Latin Extended-A, Greek and Cyrillic; ß has no single upper-case character and the
// dotless ı becomes a one-byte I. Invalid UTF-8 passes through byte by byte.
TEST_F(PlatformUiTest, UpperCasingCoversUnicodeAndKeepsInvalidBytes) {
  const std::pair<const char*, const char*> cases[] = {{"fb2.zip äöü éß", "FB2.ZIP ÄÖÜ Éß"},
                                                       {"łódź ωж ı", "ŁÓDŹ ΩЖ I"},
                                                       {"a\x80z\xC3", "A\x80Z\xC3"}};
  for (const auto& [text, upper] : cases) {
    char* result = utf_toupper_ext(text);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(std::string(result), upper) << text;
    std::free(result);
  }
  EXPECT_EQ(utf_toupper_ext(nullptr), nullptr);
}

}  // namespace
