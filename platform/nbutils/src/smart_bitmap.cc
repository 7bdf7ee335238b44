#include "nbutils/smart_bitmap.h"

#include <cstdlib>

namespace norbel {
namespace utilities {

SmartBitmap::SmartBitmap(ibitmap* bitmap) { reset(bitmap); }

void SmartBitmap::reset(ibitmap* bitmap) {
  if (bitmap == nullptr) {
    bitmap_.reset();
  } else {
    bitmap_.reset(bitmap, [](ibitmap* b) { std::free(b); });
  }
}

}  // namespace utilities
}  // namespace norbel
