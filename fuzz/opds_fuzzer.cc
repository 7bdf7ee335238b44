// The OPDS catalogue readers on arbitrary documents: the input goes to the OPDS 1.2 (Atom) and
// the OPDS 2.0 (JSON) reader and, as a description, to the OpenSearch reader; every model
// that comes out is walked the way the catalogue tool reads it (EAN, formats, prices, search).
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "opdsmodel/feed.h"
#include "opdsmodel/feed_reader.h"
#include "vistrel_store/make_format.h"

namespace {

namespace opds = norbel::opds;

void Use(const opds::Feed& feed) {
  for (const opds::Entry& entry : feed.entries) {
    entry.Ean();
    entry.AuthorNames();
    entry.NavigationLink();
    if (const opds::Link* price = entry.PriceLink()) price->PriceCents();
    boost::ptr_vector<OPDS::IndirectAcquisition> acquisitions;
    opds::AppendAcquisitions(entry, &acquisitions);
    std::stringstream formats;
    bool ticket = false;
    norbel::vistrel::MakeFormat(formats, ticket, acquisitions);
  }
  for (const opds::Link& link : feed.links) {
    if (opds::IsSearchTemplate(link.href)) opds::FillSearchTemplate(link.href, "a b&c");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  const std::string base = "https://books.example/opds/root.xml";
  opds::Feed feed;
  std::string error;
  if (opds::ParseAtomFeed(body, base, &feed, &error)) Use(feed);
  if (opds::ParseOpds2Feed(body, base, &feed, &error)) Use(feed);
  std::string url_template;
  if (opds::ParseOpenSearchDescription(body, base, &url_template)) {
    opds::FillSearchTemplate(url_template, "x");
  }
  return 0;
}
