// The device library is a C library: when memory runs out inside one of its functions, the
// function fails with its documented value instead of letting std::bad_alloc end the caller.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

// While set, every allocation through operator new of this many bytes or more fails.
std::atomic<size_t> g_fail_from{0};

}  // namespace

// Replaces the program's operator new, the one the device library's allocations go through;
// the matching deletes free what it took from malloc (which the compiler cannot see).
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
  const size_t limit = g_fail_from.load();
  if (limit != 0 && size >= limit) throw std::bad_alloc();
  if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }

namespace {

using NoThrowTest = vistrel_test::DeviceTest;

TEST_F(NoThrowTest, OutOfMemoryInsideTheDeviceLibraryIsAFailureNotAnAbort) {
  std::vector<unsigned char> pixels(1024 * 1024 * 4, 7);
  ibitmap bitmap{1024, 1024, 32, 4096, pixels.data()};
  ASSERT_EQ(SaveBitmap("/tmp/big.bmp", &bitmap), 1);
  iconfig* config = OpenConfig("/mnt/ext1/system/config/vistrel_config.cfg", nullptr);
  ASSERT_NE(config, nullptr);
  const std::string long_key(100, 'k'), long_text(1000, 'x');
  WriteString(config, "key", long_text.c_str());  // saving it takes more than the smallest blocks

  // Results are only looked at afterwards: a failed expectation would itself allocate.
  g_fail_from = 64;  // any allocation but the smallest
  WritePartnerPowerOffLogo(&bitmap);
  const int saved_bitmap = SaveBitmap("/tmp/other.bmp", &bitmap);
  ibitmap* loaded = LoadBitmap("/tmp/big.bmp");
  iconfig* other = OpenConfig("/mnt/ext1/system/config/other.cfg", nullptr);
  WriteString(config, long_key.c_str(), long_text.c_str());
  const int saved_config = SaveConfig(config);
  const char* read = ReadString(config, long_key.c_str(), "default");
  nb_print_log2(2, "file", 1, "function", "%s", long_text.c_str());
  Message(ICON_INFORMATION, "title", long_text.c_str(), 1000);
  char* upper = utf_toupper_ext(long_text.c_str());
  g_fail_from = 0;

  EXPECT_EQ(saved_bitmap, 0);
  EXPECT_EQ(loaded, nullptr);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(saved_config, 0);
  EXPECT_STREQ(read, "default");
  EXPECT_EQ(upper, nullptr);

  // Nothing was half done: the picture was not installed, and the pending change saves now.
  EXPECT_TRUE(EventsOfKind("poweroff-logo").empty());
  EXPECT_EQ(SaveConfig(config), 1);
  CloseConfigNoSave(config);
  WritePartnerPowerOffLogo(&bitmap);
  EXPECT_EQ(EventsOfKind("poweroff-logo").size(), 1u);
}

}  // namespace
