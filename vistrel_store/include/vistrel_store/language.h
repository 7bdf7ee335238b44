#ifndef VISTREL_STORE_LANGUAGE_H_
#define VISTREL_STORE_LANGUAGE_H_

#include <string>

namespace norbel {
namespace vistrel {

// One entry of the shop's language filter; "" for a missing attribute.
struct Language {
  std::string code;
  std::string name;
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_LANGUAGE_H_
