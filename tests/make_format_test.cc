// The format list of an OPDS entry's acquisition links. Upper-casing beyond ASCII is the UI
// library's and is tested with it.
#include "vistrel_store/make_format.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <string>

namespace {

using AcquisitionList = boost::ptr_vector<OPDS::IndirectAcquisition>;
using norbel::vistrel::MakeFormat;

// Appends an acquisition of `mime` with acquisitions of `nested` types inside it.
OPDS::IndirectAcquisition& Add(AcquisitionList& list, const std::string& mime,
                               std::initializer_list<const char*> nested = {}) {
  list.push_back(new OPDS::IndirectAcquisition(mime));
  for (const char* type : nested)
    list.back().GetAcquisitions().push_back(new OPDS::IndirectAcquisition(type));
  return list.back();
}

// Nested formats come before the next sibling at any depth, also inside unknown types; a
// ticket is noted, not listed. A later call continues the list and never clears the flag.
TEST(MakeFormatTest, ListsKnownFormatsDepthFirstAndNotesAdobeTickets) {
  AcquisitionList tickets, list, plain;
  Add(tickets, "image/jpeg");
  Add(tickets, "application/vnd.adobe.adept+xml");
  std::stringstream out;
  bool ticket = false;
  MakeFormat(out, ticket, tickets);  // a ticket alone writes nothing

  Add(list, "application/epub+zip");
  OPDS::IndirectAcquisition& outer = Add(list, "text/xml", {"application/x-mobipocket-ebook"});
  Add(outer.GetAcquisitions().back().GetAcquisitions(), "text/html; charset=utf-8");
  Add(list, "APPLICATION/PDF", {"text/plain"});
  Add(plain, "image/vnd.djvu");
  MakeFormat(out, ticket, list);
  MakeFormat(out, ticket, plain);
  EXPECT_EQ(out.str(), "EPUB,FB2,PRC,HTM,TXT,DJV");
  EXPECT_TRUE(ticket);
}

}  // namespace
