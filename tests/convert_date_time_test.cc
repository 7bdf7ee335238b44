#include "vistrel_store/convert_date_time.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using norbel::vistrel::ConvertDateTime;

struct Outputs {
  bool ok;
  std::string date = "d", time = "t", original = "o";  // what the caller had before
};

Outputs Convert(const std::string& in) {
  Outputs out;
  out.ok = ConvertDateTime(in, out.date, out.time, out.original);
  return out;
}

TEST(ConvertDateTimeTest, ConvertsTwelveHourClock) {
  Outputs out = Convert("Jan 5, 2015 1:07:09 PM");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.date, "05.01.2015");
  EXPECT_EQ(out.time, "13:07:09");
  EXPECT_EQ(out.original, "Jan 5, 2015");

  out = Convert("Dec 31, 1999 12:00:00 AM");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.date, "31.12.1999");
  EXPECT_EQ(out.time, "0:00:00");

  out = Convert("Feb 10, 2020 12:30:15 PM");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.date, "10.02.2020");
  EXPECT_EQ(out.time, "12:30:15");

  out = Convert("Nov 1, 2001 11:59:59 AM");
  EXPECT_EQ(out.date, "01.11.2001");
  EXPECT_EQ(out.time, "11:59:59");
}

// Only the separators are checked: the other fields are copied as they stand, and the hour is
// read the way atoi reads it.
TEST(ConvertDateTimeTest, CopiesFieldsAndReadsHourLeniently) {
  Outputs out = Convert("Mar xyz, 20x5 +3:a:b PM");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.date, "xyz.03.20x5");
  EXPECT_EQ(out.time, "15:a:b");

  EXPECT_EQ(Convert("Apr 1, 2000 9x:00:00 AM").time, "9:00:00");
  EXPECT_EQ(Convert("Apr 1, 2000 :00:00 PM").time, "12:00:00");    // no digits: 0
  EXPECT_EQ(Convert("Apr 1, 2000 -1:00:00 PM").time, "11:00:00");  // sign kept by remainder
  EXPECT_EQ(Convert("Apr 1, 2000 -13:00:00 AM").time, "-1:00:00");
  EXPECT_EQ(Convert("Apr 1, 2000 99999999999999999999:00:00 AM").ok, true);

  // A day or year too long for the 64-byte buffer is cut to 63 characters.
  std::string year(100, '9');
  out = Convert("May 1, " + year + " 1:00:00 AM");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.date, "01.05." + year.substr(0, 57));
  EXPECT_EQ(out.date.size(), 63u);
  EXPECT_EQ(out.original, "May 1, " + year);
}

TEST(ConvertDateTimeTest, EmptyInputSucceedsWithoutWriting) {
  Outputs out = Convert("");
  EXPECT_TRUE(out.ok);
  EXPECT_EQ(out.date, "d");
  EXPECT_EQ(out.time, "t");
  EXPECT_EQ(out.original, "o");
}

// Failures before the year is read leave every output alone.
TEST(ConvertDateTimeTest, EarlyFailuresWriteNothing) {
  for (const char* in : {"2015-01-05", "Jan 5 2015 1:07:09 PM", "Jan", "Jan 5, 2015", "Jan 5,",
                         "05.01.2015 | 13:07:09"}) {
    SCOPED_TRACE(in);
    Outputs out = Convert(in);
    EXPECT_FALSE(out.ok);
    EXPECT_EQ(out.date, "d");
    EXPECT_EQ(out.time, "t");
    EXPECT_EQ(out.original, "o");
  }
}

// Once the year is read the date part is written, even though the call then fails.
TEST(ConvertDateTimeTest, LateFailuresWriteOnlyOriginalDate) {
  struct Case {
    const char* in;
    const char* original;
  } cases[] = {
      {"jan 5, 2015 1:07:09 PM", "jan 5, 2015"},   // month is case-sensitive
      {"Jan 5, 2015 1:07:09 pm", "Jan 5, 2015"},   // marker is case-sensitive
      {"Jan 5, 2015 1:07:09 PM ", "Jan 5, 2015"},  // a blank after the marker
      {"Jan 5, 2015 1:07:09 XM", "Jan 5, 2015"},
      {"Jan 5, 2015 1:07:09 ", "Jan 5, 2015"},  // empty marker
      {"Jan 5, 2015 1:07:09", "Jan 5, 2015"},   // no blank before a marker
      {"Jan 5, 2015 1:07 PM", "Jan 5, 2015"},   // one colon only
      {"Jan 5, 2015 107:09 PM", "Jan 5, 2015"},
      {"Jan 5, 2015 ", "Jan 5, 2015"},
      {"January 5, 2015 1:07:09 PM", "January 5, 2015"},
      {"Ja 5, 2015 1:07:09 PM", "Ja 5, 2015"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    Outputs out = Convert(c.in);
    EXPECT_FALSE(out.ok);
    EXPECT_EQ(out.date, "d");
    EXPECT_EQ(out.time, "t");
    EXPECT_EQ(out.original, c.original);
  }
}

}  // namespace
