#include "vistrel_store/convert_date_time.h"

#include <cstdio>
#include <cstdlib>

namespace norbel {
namespace vistrel {
namespace {

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Reads the text from *pos up to `separator` into *token and moves *pos `skip` characters past
// the separator. Without a separator the token is the rest of the text, *pos becomes npos and
// the result is false. A position past the end reads as an empty rest.
bool ReadToken(const std::string& in, char separator, size_t* pos, size_t skip,
               std::string* token) {
  size_t start = *pos < in.size() ? *pos : in.size();
  size_t found = in.find(separator, start);
  if (found == std::string::npos) {
    token->assign(in, start, std::string::npos);
    *pos = std::string::npos;
    return false;
  }
  token->assign(in, start, found - start);
  *pos = found + skip;
  return true;
}

// 1 to 12 for an exact English abbreviation, else 0.
int MonthNumber(const std::string& token) {
  for (int i = 0; i < 12; ++i) {
    if (token == kMonths[i]) return i + 1;
  }
  return 0;
}

// The leading integer of the text as atoi reads it (blanks, sign, digits; none gives 0),
// reduced to its remainder by 12 so that any length of digits stays well defined.
int HourRemainder(const std::string& token) {
  long hour = std::strtol(token.c_str(), nullptr, 10);
  return static_cast<int>(hour % 12);
}

}  // namespace

bool ConvertDateTime(const std::string& in, std::string& date, std::string& time,
                     std::string& original_date) {
  if (in.empty()) return true;

  size_t pos = 0;
  std::string month, day, year;
  if (!ReadToken(in, ' ', &pos, 1, &month)) return false;
  // The comma is followed by a blank, which is stepped over with it.
  bool has_comma = ReadToken(in, ',', &pos, 2, &day);
  if (day.size() < 2) day.insert(0, "0");
  if (!has_comma) return false;
  if (!ReadToken(in, ' ', &pos, 1, &year)) return false;
  // The date part as the shop wrote it, kept even when the time turns out malformed.
  original_date = in.substr(0, pos - 1);

  std::string hour, minute, second, marker;
  if (!ReadToken(in, ':', &pos, 1, &hour)) return false;
  if (!ReadToken(in, ':', &pos, 1, &minute)) return false;
  if (!ReadToken(in, ' ', &pos, 1, &second)) return false;
  if (ReadToken(in, ' ', &pos, 1, &marker)) return false;  // the marker ends the text
  bool pm = marker == "PM";
  if (!pm && marker != "AM") return false;
  int month_number = MonthNumber(month);
  if (month_number == 0) return false;

  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "%s.%02d.%s", day.c_str(), month_number, year.c_str());
  date = buffer;
  int hour24 = HourRemainder(hour) + (pm ? 12 : 0);
  std::snprintf(buffer, sizeof(buffer), "%d:%s:%s", hour24, minute.c_str(), second.c_str());
  time = buffer;
  return true;
}

}  // namespace vistrel
}  // namespace norbel
