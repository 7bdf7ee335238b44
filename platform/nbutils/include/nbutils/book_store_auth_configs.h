#ifndef NBUTILS_BOOK_STORE_AUTH_CONFIGS_H_
#define NBUTILS_BOOK_STORE_AUTH_CONFIGS_H_

namespace norbel {
namespace utilities {

// The device's shared book-store account settings.
class BookStoreAuthConfigs {
 public:
  // Forgets the device-wide book-store login. Has no effect on a host.
  static void logOut();
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_BOOK_STORE_AUTH_CONFIGS_H_
