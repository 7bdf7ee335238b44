#include "nbutils/serialization_utils.h"

namespace norbel {
namespace utilities {
namespace SerializationUtils {

void trim(std::string& text) {
  static const char kBlanks[] = " \t\r\n";
  size_t last = text.find_last_not_of(kBlanks);
  if (last == std::string::npos) {
    text.clear();
    return;
  }
  text.erase(last + 1);
  text.erase(0, text.find_first_not_of(kBlanks));
}

}  // namespace SerializationUtils
}  // namespace utilities
}  // namespace norbel
