// BMP writing and reading on a host: what is saved loads back pixel for pixel, and broken files
// load as null.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
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

}  // namespace
