#include "check_log.h"

#include "panelkit/panelkit.h"

namespace norbel {
namespace vistrel {

void LogCheckFailed(const char* source, int line, const char* function, const char* condition,
                    const char* returned) {
  nb_print_log2(kLogError, source, line, function, "Condition: \"%s\", return(\"%s\")]", condition,
                returned);
}

}  // namespace vistrel
}  // namespace norbel
