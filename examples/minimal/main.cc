// Buys one book and downloads it, on a host with the emulated device:
//   minimal SWITCHBOARD_URL DEVICE_ROOT EMAIL PASSWORD EAN
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <vector>

#include "host/environment.h"  // the host emulation; a device build leaves it out
#include "vistrel_store/vistrel_store.h"

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::ServerApi;
using norbel::vistrel::StoreManager;

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: minimal SWITCHBOARD_URL DEVICE_ROOT EMAIL PASSWORD EAN\n");
    return 2;
  }
  // The emulated device: its configuration server, the folder that stands for its "/", and
  // a serial number. The folders the device has must exist before Init().
  setenv("VISTREL_SWITCHBOARD_URL", argv[1], 1);
  setenv("VISTREL_DEVICE_ROOT", argv[2], 1);
  setenv("VISTREL_SERIAL_NUMBER", "MINIMAL-0001", 0);
  if (!vistrel_host::PrepareDeviceRoot()) {
    std::fprintf(stderr, "cannot make the device folders under %s\n", argv[2]);
    return 1;
  }

  StoreManager* store = StoreManager::Instance();
  const int init = store->Init();  // -1: no configuration, -7: it names no shop
  if (init != 0) {
    std::fprintf(stderr, "Init() returned %d\n", init);
    return 1;
  }
  ServerApi::Result result = store->LogIn(argv[3], argv[4]);
  if (result.code_ != ServerApi::kOk) result = store->Register(argv[3], argv[4]);
  if (result.code_ != ServerApi::kOk) {
    std::fprintf(stderr, "login refused: %s\n", result.message_.c_str());
    return 1;
  }

  // One purchase: the cart needs only the book's Ean; the shop's cart fills in the rest.
  Book book;
  book.string_props_[Book::Ean] = argv[5];
  store->AddToCart(book);
  std::vector<Book> dropped;
  std::tie(result, dropped) = store->CheckOut();
  if (!dropped.empty() || store->cart().GetSize() == 0) {
    std::fprintf(stderr, "the shop does not sell %s\n", argv[5]);
    return 1;
  }
  result = store->StartPayment();  // the payment page in the browser
  if (result.code_ == ServerApi::kOk) result = store->CheckPaymentResult();
  if (result.code_ != ServerApi::kOk) {
    std::fprintf(stderr, "payment failed: %s\n", result.message_.c_str());
    return 1;
  }

  // The download runs in the background; CheckDownloadState() moves it along.
  store->DownloadBookById(argv[5]);
  while (store->CheckDownloadState() == 1) {
    const BookStatus status = store->GetBookStatus(argv[5]);
    if (status.status_ == norbel::vistrel::kDownloading) std::printf("%d%%\n", status.progress_);
    usleep(100 * 1000);
  }
  const BookStatus status = store->GetBookStatus(argv[5]);
  if (status.status_ != norbel::vistrel::kDownloaded) {
    std::fprintf(stderr, "download failed\n");
    return 1;
  }
  std::printf("%s\n", vistrel_host::ResolveDevicePath(status.path_).c_str());
  return 0;
}
