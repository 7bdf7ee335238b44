#ifndef NBUTILS_STRING_UTILS_H_
#define NBUTILS_STRING_UTILS_H_

#include <string>

namespace norbel {
namespace utilities {

// The text with ASCII letters A-Z turned to a-z; other bytes unchanged.
std::string ToLower(const std::string& text);

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_STRING_UTILS_H_
