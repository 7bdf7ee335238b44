// LoadBitmap on any bytes in a picture file, then what the library does with a picture it
// loaded: saving it again and installing it as the power-off picture.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fuzz_support.h"
#include "panelkit/panelkit.h"

namespace {
std::string g_picture;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  g_picture = vistrel_fuzz::UsePrivateDevice() + "/tmp/logo_from_vistrel.bmp";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream out(g_picture, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
      std::perror("writing the picture");
      std::abort();
    }
  }
  ibitmap* bitmap = LoadBitmap("/tmp/logo_from_vistrel.bmp");
  if (!bitmap) return 0;
  // Every pixel byte must be readable: a row past the allocation shows under the sanitizer.
  unsigned sum = 0;
  for (size_t i = 0; i < static_cast<size_t>(bitmap->scanline) * bitmap->height; ++i) {
    sum += bitmap->data[i];
  }
  if (bitmap->width == 0 || bitmap->height == 0 || bitmap->width > 4096 || bitmap->height > 4096) {
    std::fprintf(stderr, "loaded a picture of %ux%u (sum %u)\n", bitmap->width, bitmap->height,
                 sum);
    std::abort();
  }
  if (SaveBitmap("/tmp/again.bmp", bitmap) != 1) std::abort();
  ibitmap* again = LoadBitmap("/tmp/again.bmp");
  if (!again || again->width != bitmap->width || again->height != bitmap->height) std::abort();
  WritePartnerPowerOffLogo(bitmap);
  std::free(again);
  std::free(bitmap);
  return 0;
}
