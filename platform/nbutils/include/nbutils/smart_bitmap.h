// An owning handle to a device bitmap. Copies share the bitmap; the last one frees it.
#ifndef NBUTILS_SMART_BITMAP_H_
#define NBUTILS_SMART_BITMAP_H_

#include <memory>

#include "panelkit/panelkit.h"

namespace norbel {
namespace utilities {

class SmartBitmap {
 public:
  SmartBitmap() = default;
  // Takes ownership of a bitmap allocated by the device library (released with free()).
  explicit SmartBitmap(ibitmap* bitmap);

  ibitmap* get() const { return bitmap_.get(); }
  explicit operator bool() const { return bitmap_ != nullptr; }
  void reset(ibitmap* bitmap = nullptr);

 private:
  std::shared_ptr<ibitmap> bitmap_;
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_SMART_BITMAP_H_
