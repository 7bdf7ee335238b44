#ifndef VISTREL_STORE_BOOK_STATUS_H_
#define VISTREL_STORE_BOOK_STATUS_H_

#include <string>

namespace norbel {
namespace vistrel {

enum BookState : int {
  kUnknown = 0,  // neither in the cart nor purchased
  kInCart = 1,
  kPurchased = 2,    // bought, no file on the device, not downloading
  kDownloading = 3,  // bought and being downloaded (progress_ tells how far)
  kDownloaded = 4,   // bought and on the device (path_ tells where)
};

struct BookStatus {
  int status_ = kUnknown;
  std::string path_;  // set for kDownloaded only
  int progress_ = 0;  // percent, set for kDownloading only
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_BOOK_STATUS_H_
