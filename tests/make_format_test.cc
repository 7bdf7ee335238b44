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

std::string Formats(const AcquisitionList& list, bool& has_adobe_ticket) {
  std::stringstream out;
  MakeFormat(out, has_adobe_ticket, list);
  return out.str();
}

TEST(MakeFormatTest, ListsFormatsDepthFirstAndNotesAdobeTickets) {
  AcquisitionList list;
  Add(list, "application/epub+zip");
  Add(list, "application/vnd.adobe.adept+xml", {"application/pdf"});
  bool ticket = false;
  EXPECT_EQ(Formats(list, ticket), "EPUB,PDF");
  EXPECT_TRUE(ticket);

  // Nested formats come before the next sibling, at any depth.
  AcquisitionList deep;
  OPDS::IndirectAcquisition& outer = Add(deep, "text/xml", {"application/x-mobipocket-ebook"});
  Add(outer.GetAcquisitions().back().GetAcquisitions(), "text/html; charset=utf-8");
  Add(deep, "image/vnd.djvu");
  ticket = false;
  EXPECT_EQ(Formats(deep, ticket), "FB2,PRC,HTM,DJV");
  EXPECT_FALSE(ticket);

  // A ticket alone writes nothing.
  AcquisitionList only_ticket;
  Add(only_ticket, "application/vnd.adobe.adept+xml");
  ticket = false;
  EXPECT_EQ(Formats(only_ticket, ticket), "");
  EXPECT_TRUE(ticket);
}

TEST(MakeFormatTest, UnknownTypesAddNothingAndTheFlagIsNeverCleared) {
  AcquisitionList list;
  Add(list, "application/atom+xml");
  Add(list, "");
  Add(list, "APPLICATION/PDF");
  Add(list, "image/jpeg", {"text/plain"});
  Add(list, "application/zip");
  bool ticket = true;
  EXPECT_EQ(Formats(list, ticket), "TXT");
  EXPECT_TRUE(ticket);

  AcquisitionList none;
  EXPECT_EQ(Formats(none, ticket), "");
  EXPECT_TRUE(ticket);
}

TEST(MakeFormatTest, AppendsToTextAlreadyInTheStream) {
  AcquisitionList list;
  Add(list, "application/pdf");
  Add(list, "application/vnd.adobe.adept+xml", {"application/epub+zip"});
  std::stringstream out;
  out << "RTF";
  bool ticket = false;
  MakeFormat(out, ticket, list);
  EXPECT_EQ(out.str(), "RTF,PDF,EPUB");
  // A second call continues the same list.
  MakeFormat(out, ticket, list);
  EXPECT_EQ(out.str(), "RTF,PDF,EPUB,PDF,EPUB");
  EXPECT_TRUE(ticket);
}

}  // namespace
