#include "vistrel_store/convert_date_time.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using norbel::vistrel::ConvertDateTime;

// "d", "t" and "o" are what the caller had before: an output still holding one was not written.
struct Case {
  std::string in;
  bool ok;
  std::string date, time, original;
};

void Check(const Case& c) {
  SCOPED_TRACE(c.in);
  std::string date = "d", time = "t", original = "o";
  EXPECT_EQ(ConvertDateTime(c.in, date, time, original), c.ok);
  EXPECT_EQ(date, c.date);
  EXPECT_EQ(time, c.time);
  EXPECT_EQ(original, c.original);
}

TEST(ConvertDateTimeTest, ConvertsTwelveHourClockAndReadsFieldsLeniently) {
  std::string year(100, '9');  // too long for the 64-byte buffer: cut to 63 characters
  const Case cases[] = {
      {"Jan 5, 2015 1:07:09 PM", true, "05.01.2015", "13:07:09", "Jan 5, 2015"},
      {"Dec 31, 1999 12:00:00 AM", true, "31.12.1999", "0:00:00", "Dec 31, 1999"},
      {"Feb 10, 2020 12:30:15 PM", true, "10.02.2020", "12:30:15", "Feb 10, 2020"},
      {"", true, "d", "t", "o"},
      // Only the separators are checked; the hour is read the way atoi reads it.
      {"Mar xyz, 20x5 +3:a:b PM", true, "xyz.03.20x5", "15:a:b", "Mar xyz, 20x5"},
      {"Apr 1, 2000 -13:00:00 AM", true, "01.04.2000", "-1:00:00", "Apr 1, 2000"},
      // An hour beyond int reads as the largest int, as on the device: the same everywhere.
      {"Apr 1, 2000 99999999999:30:00 AM", true, "01.04.2000", "7:30:00", "Apr 1, 2000"},
      {"May 1, " + year + " 1:00:00 AM", true, "01.05." + year.substr(0, 57), "1:00:00",
       "May 1, " + year},
  };
  for (const Case& c : cases) Check(c);
}

// Failures before the year is read write nothing; later ones write only the original date.
TEST(ConvertDateTimeTest, FailuresWriteOnlyWhatWasReadBefore) {
  for (const char* in : {"2015-01-05", "Jan 5 2015 1:07:09 PM", "05.01.2015 | 13:07:09"}) {
    Check({in, false, "d", "t", "o"});
  }
  for (const char* in : {"jan 5, 2015 1:07:09 PM", "Jan 5, 2015 1:07:09 pm",
                         "Jan 5, 2015 1:07:09 PM ", "Jan 5, 2015 1:07 PM"}) {
    Check({in, false, "d", "t", std::string(in).substr(0, 11)});
  }
  Check({"January 5, 2015 1:07:09 PM", false, "d", "t", "January 5, 2015"});
}

}  // namespace
