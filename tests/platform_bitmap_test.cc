// BMP writing and reading on a host: what is saved loads back pixel for pixel, and broken files
// load as null.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

struct BitmapDeleter {
  void operator()(ibitmap* bitmap) const { std::free(bitmap); }
};
using BitmapPtr = std::unique_ptr<ibitmap, BitmapDeleter>;
using BitmapTest = vistrel_test::DeviceTest;

TEST_F(BitmapTest, SavedBitmapsLoadBackWithTheSamePixels) {
  for (unsigned short depth : {8, 24, 32}) {
    SCOPED_TRACE(depth);
    // Five pixels wide, so rows are padded in the file; three spare bytes per row in memory.
    const unsigned short row_bytes = 5 * depth / 8, scanline = row_bytes + 3;
    std::vector<unsigned char> pixels(scanline * 3);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 7 + 3);
    ibitmap original{5, 3, depth, scanline, pixels.data()};
    ASSERT_EQ(SaveBitmap("/tmp/round.bmp", &original), 1);

    BitmapPtr loaded(LoadBitmap("/tmp/round.bmp"));
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->width, 5);
    EXPECT_EQ(loaded->height, 3);
    ASSERT_EQ(loaded->depth, depth);
    for (int y = 0; y < 3; ++y) {
      EXPECT_EQ(
          std::memcmp(pixels.data() + y * scanline, loaded->data + y * loaded->scanline, row_bytes),
          0)
          << "row " << y;
    }
  }
  EXPECT_EQ(LoadBitmap("/tmp/missing.bmp"), nullptr);
}

TEST_F(BitmapTest, BrokenFilesGiveNull) {
  unsigned char pixels[48] = {};
  ibitmap picture{4, 4, 24, 12, pixels};
  ASSERT_EQ(SaveBitmap("/tmp/good.bmp", &picture), 1);
  const std::string good = ReadDeviceFile("/tmp/good.bmp");
  // The file with one byte of its headers changed.
  auto changed = [&good](size_t at, char value) {
    std::string file = good;
    file[at] = value;
    return file;
  };
  const std::vector<std::pair<std::string, std::string>> files = {
      {"the good file", good},        {"truncated pixels", good.substr(0, good.size() - 1)},
      {"magic", changed(0, 'X')},     {"pixel offset far past the end", changed(13, '\x7f')},
      {"zero width", changed(18, 0)}, {"16 bits", changed(28, 16)}};
  for (const auto& [what, content] : files) {
    WriteDeviceFile("/tmp/test.bmp", content);
    BitmapPtr loaded(LoadBitmap("/tmp/test.bmp"));
    EXPECT_EQ(loaded == nullptr, what != "the good file") << what;
  }
}

// Pictures come from outside: a file of more than 16 MiB or a picture of more than 4096
// pixels either way is refused when read and when installed as the power-off picture.
TEST_F(BitmapTest, PicturesBeyondTheCapsAreRefused) {
  auto picture = [](unsigned short width, unsigned short height, unsigned short depth,
                    std::vector<unsigned char>* pixels) {
    const unsigned short scanline = width * depth / 8;
    pixels->assign(static_cast<size_t>(scanline) * height, 0x5a);
    return ibitmap{width, height, depth, scanline, pixels->data()};
  };
  std::vector<unsigned char> pixels;
  for (auto [width, height, loads] :
       {std::tuple{4096, 2, true}, std::tuple{4097, 2, false}, std::tuple{2, 4097, false}}) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    ibitmap bitmap = picture(width, height, 8, &pixels);
    ASSERT_EQ(SaveBitmap("/tmp/wide.bmp", &bitmap), 1);
    BitmapPtr loaded(LoadBitmap("/tmp/wide.bmp"));
    EXPECT_EQ(loaded != nullptr, loads);
    WritePartnerPowerOffLogo(&bitmap);
    EXPECT_EQ(EventsOfKind("poweroff-logo").size(), loads ? 1u : 0u);
    std::remove(HostPath("/mnt/ext1/system/logo/offlogo_partner.bmp").c_str());
    std::remove(log_file_.c_str());
  }

  // A small picture padded past 16 MiB.
  ibitmap small = picture(4, 4, 24, &pixels);
  ASSERT_EQ(SaveBitmap("/tmp/padded.bmp", &small), 1);
  WriteDeviceFile("/tmp/padded.bmp",
                  ReadDeviceFile("/tmp/padded.bmp") + std::string((16 << 20) + 1, '\0'));
  EXPECT_EQ(LoadBitmap("/tmp/padded.bmp"), nullptr);

  // 4096 x 1100 pixels of 32 bits would be a file of more than 16 MiB.
  ibitmap large = picture(4096, 1100, 32, &pixels);
  WritePartnerPowerOffLogo(&large);
  EXPECT_TRUE(EventsOfKind("poweroff-logo").empty());
  EXPECT_FALSE(DeviceFileExists("/mnt/ext1/system/logo/offlogo_partner.bmp"));
}

}  // namespace
