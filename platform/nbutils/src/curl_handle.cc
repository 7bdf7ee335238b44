#include "curl_handle.h"

#include <mutex>

namespace norbel {
namespace utilities {

CurlHandle NewCurlHandle() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  return CurlHandle(curl_easy_init());
}

}  // namespace utilities
}  // namespace norbel
