// Device bitmaps on a host, read from and written to BMP files.
//
// LoadBitmap reads uncompressed BMP files with a 40-byte info header or one of its larger
// successors (52, 56, 108 and 124 bytes): 8 bits through a palette (turned into grey by the
// palette's luminance), 24 bits, and 32 bits (plain, or with byte-aligned bit fields). Rows may
// be stored bottom-up or top-down. Every size and offset is checked against the file, so a
// truncated or absurd file gives null instead of a read past its end. The 4th byte of a plain
// 32-bit pixel is kept as the alpha byte, which makes SaveBitmap's 32-bit files round-trip.
// Pictures come from outside: LoadBitmap and WritePartnerPowerOffLogo refuse files of more than
// 16 MiB and pictures of more than 4096 pixels either way.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host/environment.h"
#include "host/files.h"
#include "no_throw.h"
#include "panelkit/panelkit.h"

namespace {

constexpr uint32_t kFileHeaderSize = 14;
constexpr uint32_t kInfoHeaderSize = 40;
constexpr uint32_t kBiRgb = 0;
constexpr uint32_t kBiBitfields = 3;
constexpr uint32_t kMaxField = 65535;  // ibitmap's fields are unsigned short
// What a picture from outside may cost: the bitmap of a 16 MiB file, at most 4096 pixels each
// way, is as large as any device screen needs and small enough for any device's memory.
constexpr int64_t kMaxPictureBytes = 16 << 20;
constexpr uint32_t kMaxPictureSide = 4096;

uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t Le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
void PutLe16(std::string* out, uint32_t v) {
  out->push_back(static_cast<char>(v & 0xff));
  out->push_back(static_cast<char>(v >> 8 & 0xff));
}
void PutLe32(std::string* out, uint32_t v) {
  PutLe16(out, v & 0xffff);
  PutLe16(out, v >> 16);
}

bool ReadAt(int fd, void* buffer, size_t size, uint64_t offset) {
  auto* p = static_cast<char*>(buffer);
  while (size > 0) {
    ssize_t n = pread(fd, p, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

ibitmap* NewBitmap(uint32_t width, uint32_t height, uint32_t depth) {
  uint32_t scanline = width * (depth / 8);
  if (width == 0 || height == 0 || width > kMaxField || height > kMaxField ||
      scanline > kMaxField) {
    return nullptr;
  }
  size_t pixels = static_cast<size_t>(scanline) * height;
  auto* bitmap = static_cast<ibitmap*>(std::malloc(sizeof(ibitmap) + pixels));
  if (!bitmap) return nullptr;
  bitmap->width = static_cast<unsigned short>(width);
  bitmap->height = static_cast<unsigned short>(height);
  bitmap->depth = static_cast<unsigned short>(depth);
  bitmap->scanline = static_cast<unsigned short>(scanline);
  bitmap->data = reinterpret_cast<unsigned char*>(bitmap + 1);
  return bitmap;
}

// Where each colour byte of a 32-bit pixel sits (byte index 0..3), or -1 for no alpha.
struct ChannelBytes {
  int blue = 0, green = 1, red = 2, alpha = 3;
};

// A mask must cover exactly one whole byte; anything else is not supported.
bool MaskByte(uint32_t mask, int* byte) {
  for (int i = 0; i < 4; ++i) {
    if (mask == 0xffu << (8 * i)) {
      *byte = i;
      return true;
    }
  }
  return false;
}

struct BmpLayout {
  uint32_t width = 0;
  uint32_t height = 0;
  bool top_down = false;
  uint32_t bits = 0;
  uint32_t pixel_offset = 0;
  uint64_t stride = 0;
  std::vector<unsigned char> grey;  // 8 bits: palette index -> grey
  ChannelBytes channels;
};

bool ReadPalette(int fd, uint32_t palette_at, uint32_t colours, BmpLayout* layout) {
  if (colours == 0) colours = 256;
  if (colours > 256 || palette_at + colours * 4 > layout->pixel_offset) return false;
  std::vector<unsigned char> palette(static_cast<size_t>(colours) * 4);
  if (!ReadAt(fd, palette.data(), palette.size(), palette_at)) return false;
  layout->grey.assign(256, 0);  // indices past the palette show black
  for (uint32_t i = 0; i < colours; ++i) {
    const unsigned char* bgr = &palette[static_cast<size_t>(i) * 4];
    layout->grey[i] =
        static_cast<unsigned char>((29 * bgr[0] + 150 * bgr[1] + 77 * bgr[2] + 128) >> 8);
  }
  return true;
}

bool ReadBitfields(int fd, uint32_t header_size, BmpLayout* layout) {
  unsigned char masks[16] = {};
  bool has_alpha = header_size >= 56;
  // A 40-byte header is followed by three masks; larger headers hold them inside.
  uint32_t at = kFileHeaderSize + kInfoHeaderSize;
  uint32_t size = has_alpha ? 16 : 12;
  if (at + size > layout->pixel_offset || !ReadAt(fd, masks, size, at)) return false;
  ChannelBytes& c = layout->channels;
  if (!MaskByte(Le32(masks), &c.red) || !MaskByte(Le32(masks + 4), &c.green) ||
      !MaskByte(Le32(masks + 8), &c.blue)) {
    return false;
  }
  c.alpha = -1;
  if (has_alpha && Le32(masks + 12) != 0 && !MaskByte(Le32(masks + 12), &c.alpha)) return false;
  return true;
}

bool ReadLayout(int fd, uint64_t file_size, BmpLayout* layout) {
  unsigned char head[kFileHeaderSize + kInfoHeaderSize];
  if (file_size < sizeof(head) || !ReadAt(fd, head, sizeof(head), 0)) return false;
  if (head[0] != 'B' || head[1] != 'M') return false;
  layout->pixel_offset = Le32(head + 10);
  const unsigned char* info = head + kFileHeaderSize;
  uint32_t header_size = Le32(info);
  if (header_size != 40 && header_size != 52 && header_size != 56 && header_size != 108 &&
      header_size != 124) {
    return false;
  }
  auto width = static_cast<int32_t>(Le32(info + 4));
  auto height = static_cast<int32_t>(Le32(info + 8));
  uint16_t planes = Le16(info + 12);
  layout->bits = Le16(info + 14);
  uint32_t compression = Le32(info + 16);
  uint32_t colours = Le32(info + 32);
  if (planes != 1 || width <= 0 || height == 0 || height == INT32_MIN) return false;
  layout->width = static_cast<uint32_t>(width);
  layout->top_down = height < 0;
  layout->height = static_cast<uint32_t>(height < 0 ? -height : height);
  if (layout->width > kMaxPictureSide || layout->height > kMaxPictureSide) return false;
  if (layout->bits != 8 && layout->bits != 24 && layout->bits != 32) return false;

  uint64_t headers_end = kFileHeaderSize + static_cast<uint64_t>(header_size);
  if (layout->pixel_offset < headers_end) return false;
  layout->stride = (static_cast<uint64_t>(layout->width) * layout->bits + 31) / 32 * 4;
  if (layout->pixel_offset + layout->stride * layout->height > file_size) return false;

  if (compression == kBiBitfields && layout->bits == 32) {
    if (!ReadBitfields(fd, header_size, layout)) return false;
  } else if (compression != kBiRgb) {
    return false;
  }
  if (layout->bits == 8) {
    if (!ReadPalette(fd, static_cast<uint32_t>(headers_end), colours, layout)) return false;
  }
  return true;
}

void ConvertRow(const BmpLayout& layout, const unsigned char* in, unsigned char* out) {
  if (layout.bits == 8) {
    for (uint32_t x = 0; x < layout.width; ++x) out[x] = layout.grey[in[x]];
  } else if (layout.bits == 24) {
    std::memcpy(out, in, static_cast<size_t>(layout.width) * 3);
  } else {
    const ChannelBytes& c = layout.channels;
    for (uint32_t x = 0; x < layout.width; ++x, in += 4, out += 4) {
      out[0] = in[c.blue];
      out[1] = in[c.green];
      out[2] = in[c.red];
      out[3] = c.alpha < 0 ? 255 : in[c.alpha];
    }
  }
}

ibitmap* ReadBitmap(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxPictureBytes) {
    return nullptr;
  }
  BmpLayout layout;
  if (!ReadLayout(fd, static_cast<uint64_t>(st.st_size), &layout)) return nullptr;
  // The row buffer first: should it fail to allocate, no bitmap is left behind.
  std::vector<unsigned char> row(layout.stride);
  ibitmap* bitmap = NewBitmap(layout.width, layout.height, layout.bits);
  if (!bitmap) return nullptr;
  for (uint32_t y = 0; y < layout.height; ++y) {
    uint32_t file_row = layout.top_down ? y : layout.height - 1 - y;
    if (!ReadAt(fd, row.data(), row.size(), layout.pixel_offset + file_row * layout.stride)) {
      std::free(bitmap);
      return nullptr;
    }
    ConvertRow(layout, row.data(), bitmap->data + static_cast<size_t>(y) * bitmap->scanline);
  }
  return bitmap;
}

bool Usable(const ibitmap* bitmap) {
  if (!bitmap || !bitmap->data || bitmap->width == 0 || bitmap->height == 0) return false;
  if (bitmap->depth != 8 && bitmap->depth != 24 && bitmap->depth != 32) return false;
  return bitmap->scanline >= static_cast<uint32_t>(bitmap->width) * (bitmap->depth / 8);
}

// False when the file would not fit the format's 32-bit size fields.
bool EncodeBmp(const ibitmap* bitmap, std::string* file) {
  uint32_t bytes = bitmap->depth / 8;
  uint32_t stride = (bitmap->width * bytes + 3) / 4 * 4;
  uint32_t palette = bitmap->depth == 8 ? 256 * 4 : 0;
  uint32_t offset = kFileHeaderSize + kInfoHeaderSize + palette;
  uint64_t file_size = offset + static_cast<uint64_t>(stride) * bitmap->height;
  if (file_size > UINT32_MAX) return false;
  std::string& out = *file;
  out.clear();
  out.reserve(static_cast<size_t>(file_size));
  out += "BM";
  PutLe32(&out, static_cast<uint32_t>(file_size));
  PutLe32(&out, 0);
  PutLe32(&out, offset);
  PutLe32(&out, kInfoHeaderSize);
  PutLe32(&out, bitmap->width);
  PutLe32(&out, bitmap->height);  // positive: bottom-up, the common form
  PutLe16(&out, 1);
  PutLe16(&out, bitmap->depth);
  PutLe32(&out, kBiRgb);
  PutLe32(&out, static_cast<uint32_t>(stride * bitmap->height));
  PutLe32(&out, 2835);  // 72 dpi
  PutLe32(&out, 2835);
  PutLe32(&out, palette ? 256 : 0);
  PutLe32(&out, 0);
  for (uint32_t i = 0; i < palette / 4; ++i) PutLe32(&out, i * 0x010101u);
  for (uint32_t y = bitmap->height; y-- > 0;) {
    const unsigned char* row = bitmap->data + static_cast<size_t>(y) * bitmap->scanline;
    out.append(reinterpret_cast<const char*>(row), static_cast<size_t>(bitmap->width) * bytes);
    out.append(stride - bitmap->width * bytes, '\0');
  }
  return true;
}

ibitmap* CopyBitmap(const ibitmap* source) {
  if (!Usable(source)) return nullptr;
  ibitmap* copy = NewBitmap(source->width, source->height, source->depth);
  if (!copy) return nullptr;
  for (uint32_t y = 0; y < source->height; ++y) {
    std::memcpy(copy->data + static_cast<size_t>(y) * copy->scanline,
                source->data + static_cast<size_t>(y) * source->scanline, copy->scanline);
  }
  return copy;
}

}  // namespace

extern "C" ibitmap* LoadBitmap(const char* path) {
  return panelkit_internal::NoThrow(static_cast<ibitmap*>(nullptr), [&]() -> ibitmap* {
    if (!path || !*path) return nullptr;
    // Neither a link nor a FIFO planted at the path is followed or waited on.
    int fd = open(vistrel_host::ResolveDevicePath(path).c_str(),
                  O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return nullptr;
    ibitmap* bitmap = ReadBitmap(fd);
    close(fd);
    return bitmap;
  });
}

extern "C" int SaveBitmap(const char* path, const ibitmap* bitmap) {
  return panelkit_internal::NoThrow(0, [&] {
    std::string file;
    if (!path || !*path || !Usable(bitmap) || !EncodeBmp(bitmap, &file)) return 0;
    return vistrel_host::ReplaceFile(vistrel_host::ResolveDevicePath(path), file, 0644) ? 1 : 0;
  });
}

extern "C" ibitmap* GetResource(const char* name, const ibitmap* fallback) {
  return panelkit_internal::NoThrow(static_cast<ibitmap*>(nullptr), [&]() -> ibitmap* {
    // A name is one file of the resource folder, never a path.
    if (name && *name && !std::strchr(name, '/')) {
      std::string path = std::string("/kelmast/system/resources/") + name + ".bmp";
      if (ibitmap* bitmap = LoadBitmap(path.c_str())) return bitmap;
    }
    return CopyBitmap(fallback);
  });
}

extern "C" void WritePartnerPowerOffLogo(const ibitmap* bitmap) {
  // Every failure is silent: the device keeps the picture it had.
  panelkit_internal::NoThrow([&] {
    if (!Usable(bitmap) || bitmap->width > kMaxPictureSide || bitmap->height > kMaxPictureSide) {
      return;
    }
    std::string file;
    if (!EncodeBmp(bitmap, &file) || static_cast<int64_t>(file.size()) > kMaxPictureBytes) return;
    std::string folder = vistrel_host::ResolveDevicePath("/mnt/ext1/system/logo");
    if (!vistrel_host::MakeFolders(folder)) return;
    if (!vistrel_host::ReplaceFile(folder + "/offlogo_partner.bmp", file, 0644)) return;
    vistrel_host::AppendEvent("poweroff-logo\t" + std::to_string(bitmap->width) + "x" +
                              std::to_string(bitmap->height));
  });
}
