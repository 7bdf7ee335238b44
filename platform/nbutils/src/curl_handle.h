// libcurl easy handles for the utilities that talk HTTP.
#ifndef NBUTILS_SRC_CURL_HANDLE_H_
#define NBUTILS_SRC_CURL_HANDLE_H_

#include <curl/curl.h>

#include <memory>

namespace norbel {
namespace utilities {

struct CurlDeleter {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDeleter>;

// A new easy handle (null when curl cannot make one). libcurl's global set-up runs once per
// process, before the first handle: it is not safe to run it from two threads at once, and the
// request runner and a background download may start together.
CurlHandle NewCurlHandle();

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_SRC_CURL_HANDLE_H_
