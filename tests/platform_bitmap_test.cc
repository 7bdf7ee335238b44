// BMP reading and writing on a host, the resource lookup and the power-off picture.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "panelkit/panelkit.h"
#include "support/device_fixture.h"

namespace {

struct BitmapDeleter {
  void operator()(ibitmap* bitmap) const { std::free(bitmap); }
};
using BitmapPtr = std::unique_ptr<ibitmap, BitmapDeleter>;

// A bitmap laid out as the device library makes them, with a distinct value in every byte
// and `extra` unused bytes at the end of each row.
BitmapPtr MakeBitmap(int width, int height, int depth, int extra = 0) {
  int scanline = width * depth / 8 + extra;
  auto* bitmap = static_cast<ibitmap*>(std::malloc(sizeof(ibitmap) + scanline * height));
  bitmap->width = static_cast<unsigned short>(width);
  bitmap->height = static_cast<unsigned short>(height);
  bitmap->depth = static_cast<unsigned short>(depth);
  bitmap->scanline = static_cast<unsigned short>(scanline);
  bitmap->data = reinterpret_cast<unsigned char*>(bitmap + 1);
  for (int i = 0; i < scanline * height; ++i)
    bitmap->data[i] = static_cast<unsigned char>(i * 7 + 3);
  return BitmapPtr(bitmap);
}

void ExpectSamePixels(const ibitmap& a, const ibitmap& b) {
  ASSERT_EQ(a.width, b.width);
  ASSERT_EQ(a.height, b.height);
  ASSERT_EQ(a.depth, b.depth);
  for (int y = 0; y < a.height; ++y) {
    ASSERT_EQ(std::memcmp(a.data + y * a.scanline, b.data + y * b.scanline, a.width * a.depth / 8),
              0)
        << "row " << y;
  }
}

// Writes `v` as `bytes` little-endian bytes at `at`.
void Put(std::string* out, size_t at, uint32_t v, int bytes = 4) {
  for (int i = 0; i < bytes; ++i) (*out)[at + i] = static_cast<char>(v >> (8 * i) & 0xff);
}

// A BMP file built by hand: headers, then `extra` (palette or masks) right behind the info
// header, then `pixels` as given.
std::string BuildBmp(int32_t width, int32_t height, uint32_t bits, const std::string& pixels,
                     std::vector<uint32_t> extra = {}, uint32_t compression = 0,
                     uint32_t colours = 0, uint32_t header_size = 40) {
  std::string out(14 + header_size, '\0');
  out[0] = 'B';
  out[1] = 'M';
  Put(&out, 14, header_size);
  Put(&out, 18, static_cast<uint32_t>(width));
  Put(&out, 22, static_cast<uint32_t>(height));
  Put(&out, 26, 1, 2);
  Put(&out, 28, bits, 2);
  Put(&out, 30, compression);
  Put(&out, 46, colours);
  size_t at = 54;  // masks of larger headers live inside them, at the same place
  for (uint32_t v : extra) {
    if (at + 4 > out.size()) out.resize(at + 4);
    Put(&out, at, v);
    at += 4;
  }
  Put(&out, 10, static_cast<uint32_t>(out.size()));
  out += pixels;
  Put(&out, 2, static_cast<uint32_t>(out.size()));
  return out;
}

class BitmapTest : public vistrel_test::DeviceTest {
 protected:
  BitmapPtr Load(const std::string& content) {
    WriteDeviceFile("/tmp/test.bmp", content);
    return BitmapPtr(LoadBitmap("/tmp/test.bmp"));
  }
};

TEST_F(BitmapTest, SavedBitmapsLoadBackWithTheSamePixels) {
  for (int depth : {8, 24, 32}) {
    SCOPED_TRACE(depth);
    // Odd width (padded rows in the file) and spare bytes per row in memory.
    BitmapPtr original = MakeBitmap(5, 3, depth, 3);
    ASSERT_EQ(SaveBitmap("/tmp/round.bmp", original.get()), 1);
    EXPECT_EQ(ReadDeviceFile("/tmp/round.bmp").substr(0, 2), "BM");
    BitmapPtr loaded(LoadBitmap("/tmp/round.bmp"));
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->scanline, 5 * depth / 8);
    EXPECT_EQ(loaded->data, reinterpret_cast<unsigned char*>(loaded.get() + 1));
    ExpectSamePixels(*original, *loaded);
  }
  EXPECT_EQ(LoadBitmap("/tmp/missing.bmp"), nullptr);
  EXPECT_EQ(LoadBitmap("/tmp"), nullptr);  // a folder
  EXPECT_EQ(SaveBitmap("/tmp/x.bmp", nullptr), 0);
  EXPECT_EQ(SaveBitmap("/no/such/folder/x.bmp", MakeBitmap(1, 1, 24).get()), 0);
}

TEST_F(BitmapTest, ReadsPalettesTopDownRowsAndBitFields) {
  // 8 bits, bottom-up, 3 pixels wide (rows padded to 4 bytes); palette: black, white, pure red.
  BitmapPtr bitmap = Load(BuildBmp(3, 2, 8, std::string("\x00\x01\x02\x00\x02\x01\x00\x00", 8),
                                   {0x000000, 0xffffff, 0xff0000}, 0, 3));
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(bitmap->depth, 8);
  EXPECT_EQ(std::memcmp(bitmap->data, "\x4d\xff\x00", 3), 0);  // the file's last row; red is 77
  EXPECT_EQ(std::memcmp(bitmap->data + bitmap->scanline, "\x00\xff\x4d", 3), 0);

  // 32 bits, top-down, V5 header whose masks put red in the lowest byte: R G B A per pixel.
  bitmap = Load(BuildBmp(1, -2, 32, "\x11\x22\x33\x44\x55\x66\x77\x88",
                         {0x000000ff, 0x0000ff00, 0x00ff0000, 0xff000000}, 3, 0, 124));
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(std::memcmp(bitmap->data, "\x33\x22\x11\x44", 4), 0);  // first row first
  EXPECT_EQ(std::memcmp(bitmap->data + bitmap->scanline, "\x77\x66\x55\x88", 4), 0);

  bitmap = Load(BuildBmp(1, 1, 24, std::string("\x01\x02\x03\x00", 4), {}, 0, 0, 108));  // V4
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(std::memcmp(bitmap->data, "\x01\x02\x03", 3), 0);
}

TEST_F(BitmapTest, BrokenOrAbsurdFilesGiveNull) {
  ASSERT_EQ(SaveBitmap("/tmp/good.bmp", MakeBitmap(4, 4, 24).get()), 1);
  const std::string good = ReadDeviceFile("/tmp/good.bmp");
  ASSERT_NE(Load(good), nullptr);
  std::vector<std::pair<std::string, std::string>> files = {
      {"truncated pixels", good.substr(0, good.size() - 1)},
      {"truncated header", good.substr(0, 30)},
      {"empty", ""},
      {"magic", "X" + good.substr(1)},
      {"row too long", BuildBmp(20000, 1, 32, std::string(80000, '\0'))},
      {"palette of 300 colours", BuildBmp(4, 1, 8, std::string(4, '\0'), {}, 0, 300)},
      {"palette past the pixel offset", BuildBmp(4, 1, 8, std::string(4, '\0'), {}, 0, 2)},
      {"mask not a whole byte",
       BuildBmp(1, 1, 32, std::string(4, '\0'), {0x00ff0000, 0x0000ff00, 0x000000f0}, 3)}};
  struct Change {
    const char* what;
    size_t at;
    uint32_t value;
    int bytes;
  };
  for (const Change& c :
       std::vector<Change>{{"offset past end", 10, static_cast<uint32_t>(good.size()), 4},
                           {"offset near 4 GiB", 10, 0xfffffff0u, 4},
                           {"offset inside the headers", 10, 20, 4},
                           {"old core header", 14, 12, 4},
                           {"header size", 14, 1000, 4},
                           {"zero width", 18, 0, 4},
                           {"width above 65535", 18, 70000, 4},
                           {"negative width", 18, 0x80000000u, 4},
                           {"zero height", 22, 0, 4},
                           {"height below -65535", 22, static_cast<uint32_t>(-70000), 4},
                           {"smallest int height", 22, 0x80000000u, 4},
                           {"more rows than the file holds", 22, 40000, 4},
                           {"planes", 26, 2, 2},
                           {"16 bits", 28, 16, 2},
                           {"1 bit", 28, 1, 2},
                           {"run-length compression", 30, 1, 4},
                           {"bit fields on 24 bits", 30, 3, 4}}) {
    files.emplace_back(c.what, good);
    Put(&files.back().second, c.at, c.value, c.bytes);
  }
  for (const auto& [what, content] : files) EXPECT_EQ(Load(content), nullptr) << what;
}

TEST_F(BitmapTest, ResourcesFallBackToACopy) {
  BitmapPtr resource = MakeBitmap(3, 2, 8);
  ASSERT_EQ(SaveBitmap("/kelmast/system/resources/logo.bmp", resource.get()), 1);
  BitmapPtr found(GetResource("logo", nullptr));
  ASSERT_NE(found, nullptr);
  ExpectSamePixels(*resource, *found);

  BitmapPtr fallback = MakeBitmap(2, 2, 32, 4);
  BitmapPtr copy(GetResource("missing", fallback.get()));
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy.get(), fallback.get());
  EXPECT_EQ(copy->data, reinterpret_cast<unsigned char*>(copy.get() + 1));
  ExpectSamePixels(*fallback, *copy);
  EXPECT_EQ(GetResource("missing", nullptr), nullptr);
  // A name is not a path out of the resource folder.
  ASSERT_EQ(SaveBitmap("/kelmast/system/outside.bmp", resource.get()), 1);
  copy.reset(GetResource("../outside", fallback.get()));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->depth, 32);
}

TEST_F(BitmapTest, PowerOffLogoIsSavedAndAnnounced) {
  BitmapPtr logo = MakeBitmap(7, 3, 24);
  ASSERT_FALSE(DeviceFileExists("/mnt/ext1/system/logo"));
  WritePartnerPowerOffLogo(logo.get());
  BitmapPtr installed(LoadBitmap("/mnt/ext1/system/logo/offlogo_partner.bmp"));
  ASSERT_NE(installed, nullptr);
  ExpectSamePixels(*logo, *installed);
  auto events = EventsOfKind("poweroff-logo");
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].at(1), "7x3");
  EXPECT_EQ(events[0].fields.size(), 2u);

  WritePartnerPowerOffLogo(nullptr);
  EXPECT_EQ(EventsOfKind("poweroff-logo").size(), 1u);
}

}  // namespace
