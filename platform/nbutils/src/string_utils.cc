#include "nbutils/string_utils.h"

namespace norbel {
namespace utilities {

std::string ToLower(const std::string& text) {
  std::string result = text;
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}

}  // namespace utilities
}  // namespace norbel
