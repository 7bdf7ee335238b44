// The device library is a C library: no C++ exception may leave it, since a C caller cannot
// catch one and the process would end. Every C function of the stand-in runs its body here.
#ifndef PANELKIT_SRC_NO_THROW_H_
#define PANELKIT_SRC_NO_THROW_H_

#include <utility>

namespace panelkit_internal {

// Runs `body`; should it throw (std::bad_alloc under memory pressure above all), returns
// `failed` instead, the function's documented failure value.
template <typename Result, typename Body>
Result NoThrow(Result failed, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return failed;
  }
}

// The same for functions without a result: a failure is silent.
template <typename Body>
void NoThrow(Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
  } catch (...) {
  }
}

}  // namespace panelkit_internal

#endif  // PANELKIT_SRC_NO_THROW_H_
