#ifndef NBUTILS_SERIALIZATION_UTILS_H_
#define NBUTILS_SERIALIZATION_UTILS_H_

#include <string>

namespace norbel {
namespace utilities {
namespace SerializationUtils {

// Removes spaces, tabs, carriage returns and line feeds at both ends, in place.
void trim(std::string& text);

}  // namespace SerializationUtils
}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_SERIALIZATION_UTILS_H_
