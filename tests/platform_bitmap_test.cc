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

void Put16(std::string* out, size_t at, uint32_t v) {
  (*out)[at] = static_cast<char>(v & 0xff);
  (*out)[at + 1] = static_cast<char>(v >> 8 & 0xff);
}
void Put32(std::string* out, size_t at, uint32_t v) {
  Put16(out, at, v & 0xffff);
  Put16(out, at + 2, v >> 16);
}

// A BMP file built by hand: headers, optional palette or masks, then `pixels` as given.
struct BmpSpec {
  uint32_t header_size = 40;
  int32_t width = 2;
  int32_t height = 2;
  uint32_t bits = 24;
  uint32_t compression = 0;
  uint32_t colours = 0;
  std::vector<uint32_t> palette_or_masks;  // written right behind the info header
  std::string pixels;
};

std::string BuildBmp(const BmpSpec& spec) {
  std::string out(14 + spec.header_size, '\0');
  out[0] = 'B';
  out[1] = 'M';
  Put32(&out, 14, spec.header_size);
  Put32(&out, 18, static_cast<uint32_t>(spec.width));
  Put32(&out, 22, static_cast<uint32_t>(spec.height));
  Put16(&out, 26, 1);
  Put16(&out, 28, spec.bits);
  Put32(&out, 30, spec.compression);
  Put32(&out, 46, spec.colours);
  // Masks of larger headers live inside them, at the same place.
  size_t at = 54;
  for (uint32_t v : spec.palette_or_masks) {
    if (at + 4 > out.size()) out.resize(at + 4);
    Put32(&out, at, v);
    at += 4;
  }
  Put32(&out, 10, static_cast<uint32_t>(out.size()));
  out += spec.pixels;
  Put32(&out, 2, static_cast<uint32_t>(out.size()));
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
    std::string file = ReadDeviceFile("/tmp/round.bmp");
    ASSERT_GE(file.size(), 54u);
    EXPECT_EQ(file.substr(0, 2), "BM");
    BitmapPtr loaded(LoadBitmap("/tmp/round.bmp"));
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(loaded->scanline, 5 * depth / 8);
    EXPECT_EQ(loaded->data, reinterpret_cast<unsigned char*>(loaded.get() + 1));
    ExpectSamePixels(*original, *loaded);
  }
  EXPECT_EQ(LoadBitmap("/tmp/missing.bmp"), nullptr);
  EXPECT_EQ(SaveBitmap("/tmp/x.bmp", nullptr), 0);
  EXPECT_EQ(SaveBitmap("/no/such/folder/x.bmp", MakeBitmap(1, 1, 24).get()), 0);
}

TEST_F(BitmapTest, ReadsPalettesTopDownRowsAndBitFields) {
  // 8 bits, bottom-up, 3 pixels wide (rows padded to 4 bytes); palette: black, white, pure red.
  BmpSpec grey;
  grey.bits = 8;
  grey.width = 3;
  grey.colours = 3;
  grey.palette_or_masks = {0x000000, 0xffffff, 0xff0000};
  grey.pixels = std::string("\x00\x01\x02\x00\x02\x01\x00\x00", 8);
  BitmapPtr bitmap = Load(BuildBmp(grey));
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(bitmap->depth, 8);
  const unsigned char top[] = {77, 255, 0};  // the file's last row; red has luminance 77
  const unsigned char bottom[] = {0, 255, 77};
  EXPECT_EQ(std::memcmp(bitmap->data, top, 3), 0);
  EXPECT_EQ(std::memcmp(bitmap->data + bitmap->scanline, bottom, 3), 0);

  // 32 bits, top-down, V5 header whose masks put red in the lowest byte.
  BmpSpec fields;
  fields.header_size = 124;
  fields.bits = 32;
  fields.width = 1;
  fields.height = -2;
  fields.compression = 3;
  fields.palette_or_masks = {0x000000ff, 0x0000ff00, 0x00ff0000, 0xff000000};
  fields.pixels = std::string("\x11\x22\x33\x44\x55\x66\x77\x88", 8);  // R G B A per pixel
  bitmap = Load(BuildBmp(fields));
  ASSERT_NE(bitmap, nullptr);
  const unsigned char bgra[] = {0x33, 0x22, 0x11, 0x44, 0x77, 0x66, 0x55, 0x88};
  EXPECT_EQ(std::memcmp(bitmap->data, bgra, 4), 0);  // top-down: first row first
  EXPECT_EQ(std::memcmp(bitmap->data + bitmap->scanline, bgra + 4, 4), 0);

  // 24 bits with a V4 header.
  BmpSpec v4;
  v4.header_size = 108;
  v4.width = 1;
  v4.height = 1;
  v4.pixels = std::string("\x01\x02\x03\x00", 4);
  bitmap = Load(BuildBmp(v4));
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(std::memcmp(bitmap->data, "\x01\x02\x03", 3), 0);
}

TEST_F(BitmapTest, BrokenOrAbsurdFilesGiveNull) {
  BitmapPtr picture = MakeBitmap(4, 4, 24);
  ASSERT_EQ(SaveBitmap("/tmp/good.bmp", picture.get()), 1);
  const std::string good = ReadDeviceFile("/tmp/good.bmp");
  ASSERT_NE(Load(good), nullptr);

  EXPECT_EQ(Load(good.substr(0, good.size() - 1)), nullptr) << "truncated pixels";
  EXPECT_EQ(Load(good.substr(0, 30)), nullptr) << "truncated header";
  EXPECT_EQ(Load(""), nullptr);
  std::string bad = good;
  bad[0] = 'X';
  EXPECT_EQ(Load(bad), nullptr) << "magic";

  auto with = [&](size_t at, uint32_t value, bool wide = true) {
    std::string changed = good;
    if (wide) {
      Put32(&changed, at, value);
    } else {
      Put16(&changed, at, value);
    }
    return changed;
  };
  EXPECT_EQ(Load(with(10, static_cast<uint32_t>(good.size()))), nullptr) << "offset past end";
  EXPECT_EQ(Load(with(10, 0xfffffff0u)), nullptr) << "offset near 4 GiB";
  EXPECT_EQ(Load(with(10, 20)), nullptr) << "offset inside the headers";
  EXPECT_EQ(Load(with(14, 12)), nullptr) << "old core header";
  EXPECT_EQ(Load(with(14, 1000)), nullptr) << "header size";
  EXPECT_EQ(Load(with(18, 0)), nullptr) << "zero width";
  EXPECT_EQ(Load(with(18, 70000)), nullptr) << "width above 65535";
  EXPECT_EQ(Load(with(18, 0x80000000u)), nullptr) << "negative width";
  EXPECT_EQ(Load(with(22, 0)), nullptr) << "zero height";
  EXPECT_EQ(Load(with(22, static_cast<uint32_t>(-70000))), nullptr) << "height below -65535";
  EXPECT_EQ(Load(with(22, 0x80000000u)), nullptr) << "smallest int height";
  EXPECT_EQ(Load(with(22, 40000)), nullptr) << "more rows than the file holds";
  EXPECT_EQ(Load(with(26, 2, false)), nullptr) << "planes";
  EXPECT_EQ(Load(with(28, 16, false)), nullptr) << "16 bits";
  EXPECT_EQ(Load(with(28, 1, false)), nullptr) << "1 bit";
  EXPECT_EQ(Load(with(30, 1)), nullptr) << "run-length compression";
  EXPECT_EQ(Load(with(30, 3)), nullptr) << "bit fields on 24 bits";

  // 32-bit rows of 20000 pixels do not fit a row length of 65535 bytes.
  BmpSpec wide;
  wide.bits = 32;
  wide.width = 20000;
  wide.height = 1;
  wide.pixels.assign(80000, '\0');
  EXPECT_EQ(Load(BuildBmp(wide)), nullptr) << "row too long";

  BmpSpec palette;
  palette.bits = 8;
  palette.width = 4;
  palette.height = 1;
  palette.colours = 300;
  palette.pixels.assign(4, '\0');
  EXPECT_EQ(Load(BuildBmp(palette)), nullptr) << "palette of 300 colours";
  palette.colours = 2;  // palette missing from the file
  EXPECT_EQ(Load(BuildBmp(palette)), nullptr) << "palette past the pixel offset";

  BmpSpec masks;
  masks.bits = 32;
  masks.width = 1;
  masks.height = 1;
  masks.compression = 3;
  masks.palette_or_masks = {0x00ff0000, 0x0000ff00, 0x000000f0};
  masks.pixels.assign(4, '\0');
  EXPECT_EQ(Load(BuildBmp(masks)), nullptr) << "mask not a whole byte";

  EXPECT_EQ(LoadBitmap("/tmp"), nullptr) << "a folder";
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
