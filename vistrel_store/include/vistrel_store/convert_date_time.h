#ifndef VISTREL_STORE_CONVERT_DATE_TIME_H_
#define VISTREL_STORE_CONVERT_DATE_TIME_H_

#include <string>

#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// Converts the shop's date text, such as "Jan 5, 2015 1:07:09 PM", into the device's form:
// `date` "05.01.2015" (day.month.year), `time` "13:07:09" (24-hour clock) and
// `original_date` "Jan 5, 2015" (the text before the blank after the year).
//
// Returns false when the text has another shape. `date` and `time` are written only on
// success; `original_date` is written as soon as the year has been read, so a text that fails
// later still changes it. An empty `in` returns true and writes nothing.
VISTREL_STORE_EXPORT bool ConvertDateTime(const std::string& in, std::string& date,
                                          std::string& time, std::string& original_date);

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_CONVERT_DATE_TIME_H_
