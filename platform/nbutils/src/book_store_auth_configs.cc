#include "nbutils/book_store_auth_configs.h"

namespace norbel {
namespace utilities {

// The device keeps a book-store login shared by its shop applications; a host has none.
void BookStoreAuthConfigs::logOut() {}

}  // namespace utilities
}  // namespace norbel
