// The JSON library's 64-bit integer conversion, made whole at the top of the range.
#ifndef VISTREL_STORE_SRC_DATA_JSON_INT64_H_
#define VISTREL_STORE_SRC_DATA_JSON_INT64_H_

#include <json/value.h>

namespace norbel {
namespace vistrel {

// As Json::Value::asInt64, except for a real of 2^63 (such as 9223372036854775807.0, which
// rounds to it): jsoncpp's range check lets it through and its cast is then undefined, giving
// the lowest value on x86 and the highest on ARM. It raises the library's own range error here,
// as every larger real does.
inline Json::Int64 AsInt64(const Json::Value& value) {
  if (value.type() == Json::realValue) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    double real = value.asDouble();
    if (!(real >= -kLimit && real < kLimit)) Json::throwLogicError("double out of Int64 range");
  }
  return value.asInt64();
}

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_JSON_INT64_H_
