// The OPDS catalogue readers: feeds in the shapes that library servers and stores publish
// (written here from the OPDS 1.2 and 2.0 standards), hostile feeds that must stay bounded,
// and the fetch with its redirects and search.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>

#include "opdsmodel/feed.h"
#include "opdsmodel/feed_fetch.h"
#include "opdsmodel/feed_reader.h"
#include "support/fake_server.h"
#include "vistrel_store/make_format.h"

namespace {

namespace opds = norbel::opds;

std::string Formats(const opds::Entry& entry, bool* ticket) {
  boost::ptr_vector<OPDS::IndirectAcquisition> acquisitions;
  opds::AppendAcquisitions(entry, &acquisitions);
  std::stringstream out;
  *ticket = false;
  norbel::vistrel::MakeFormat(out, *ticket, acquisitions);
  return out.str();
}

opds::Feed Parse(const std::string& body, const std::string& base) {
  opds::Feed feed;
  std::string error;
  EXPECT_TRUE(opds::ParseFeed(body, base, &feed, &error)) << error;
  return feed;
}

// A personal library server: Atom under a prefix, Dublin Core under another, a uuid before
// the ISBN, several open-access formats, covers, HTML and XHTML summaries, CDATA, entities,
// relative links, facets, a bare templated search link and a next page.
const char kLibraryFeed[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<a:feed xmlns:a="http://www.w3.org/2005/Atom" xmlns:dcterms="http://purl.org/dc/terms/"
        xmlns:o="http://opds-spec.org/2010/catalog" xmlns:x="urn:example:extra">
  <a:id>urn:uuid:library-root</a:id>
  <a:title>My  Library</a:title>
  <a:link rel="self" href="/opds/new?offset=0" type="application/atom+xml;profile=opds-catalog"/>
  <a:link rel="start" href="../opds" type="application/atom+xml;profile=opds-catalog"/>
  <a:link rel="next" href="new?offset=2" type="application/atom+xml;profile=opds-catalog"/>
  <a:link rel="search" href="search/{searchTerms}" type="application/atom+xml"/>
  <a:link rel="http://opds-spec.org/facet" href="new?sort=title" title="Title"
          o:facetGroup="Sort" o:activeFacet="true"/>
  <x:unknown><a:entry><a:title>not an entry</a:title></a:entry></x:unknown>
  <a:entry>
    <a:title><![CDATA[Salt & <Pepper>]]></a:title>
    <a:id>urn:uuid:0b3f</a:id>
    <a:author><a:name>Ana  Lima</a:name><a:uri>/authors/1</a:uri></a:author>
    <a:author><a:name>Jo&#233; Park</a:name></a:author>
    <dcterms:identifier>urn:uuid:0b3f</dcterms:identifier>
    <dcterms:identifier>urn:isbn:978-3-98-000010-9</dcterms:identifier>
    <dcterms:language>en</dcterms:language>
    <dcterms:issued>2019-04-01</dcterms:issued>
    <a:category term="Cooking" label="Cooking &amp; Food"/>
    <a:summary type="html">&lt;p&gt;A &lt;b&gt;bold&lt;/b&gt;&amp;nbsp;start.&lt;/p&gt;&lt;p&gt;Two&lt;/p&gt;</a:summary>
    <a:content type="xhtml"><div xmlns="http://www.w3.org/1999/xhtml"><p>One</p><p>Two</p></div></a:content>
    <a:link rel="http://opds-spec.org/image" href="covers/1.jpg" type="image/jpeg"/>
    <a:link rel="http://opds-spec.org/image/thumbnail" href="/thumbs/1.jpg" type="image/jpeg"/>
    <a:link rel="http://opds-spec.org/acquisition/open-access" href="get/epub/1" type="application/epub+zip"/>
    <a:link rel="http://opds-spec.org/acquisition/open-access" href="get/pdf/1" type="application/pdf"/>
    <a:link rel="alternate" href="/book/1" type="text/html"/>
    <x:rating>5</x:rating>
  </a:entry>
  <a:entry>
    <a:title>No ISBN</a:title>
    <a:id>tag:library,2020:book-2</a:id>
    <dcterms:identifier>urn:uuid:22</dcterms:identifier>
    <dcterms:identifier>ISBN 0-306-40615-2</dcterms:identifier>
    <a:link rel="http://opds-spec.org/acquisition" href="get/2" type="application/epub+zip"/>
  </a:entry>
  <a:entry>
    <a:title>ISBN-10 only</a:title>
    <a:id>b3</a:id>
    <dcterms:identifier>urn:isbn:0-306-40615-2</dcterms:identifier>
    <a:link rel="http://opds-spec.org/acquisition" href="get/3" type="application/pdf"/>
  </a:entry>
  <a:entry>
    <a:title>By author</a:title>
    <a:id>nav-1</a:id>
    <a:link rel="subsection" href="authors" type="application/atom+xml;profile=opds-catalog;kind=navigation"/>
  </a:entry>
</a:feed>)";

TEST(OpdsAtomTest, ReadsALibraryFeedWithPrefixesMarkupAndRelativeLinks) {
  const opds::Feed feed = Parse(kLibraryFeed, "http://lib.example:8080/opds/new?offset=0");
  EXPECT_FALSE(feed.truncated);
  EXPECT_EQ("My Library", feed.title);
  EXPECT_EQ("http://lib.example:8080/opds", feed.FindLink(opds::rel::kStart)->href);
  EXPECT_EQ("http://lib.example:8080/opds/new?offset=2", feed.FindLink(opds::rel::kNext)->href);
  const opds::Link* search = feed.FindLink(opds::rel::kSearch);
  ASSERT_NE(nullptr, search);
  EXPECT_EQ("http://lib.example:8080/opds/search/{searchTerms}", search->href);
  EXPECT_EQ("http://lib.example:8080/opds/search/sea%20salt%26more",
            opds::FillSearchTemplate(search->href, "sea salt&more"));
  ASSERT_EQ(1u, feed.Facets().size());
  EXPECT_EQ("Sort", feed.Facets()[0]->facet_group);
  EXPECT_TRUE(feed.Facets()[0]->active_facet);

  // The entry inside an unknown element is not one of the feed's.
  ASSERT_EQ(4u, feed.entries.size());
  const opds::Entry& book = feed.entries[0];
  EXPECT_EQ("Salt & <Pepper>", book.title);
  EXPECT_EQ("Ana Lima, Jo\xc3\xa9 Park", book.AuthorNames());
  EXPECT_EQ("http://lib.example:8080/authors/1", book.authors[0].uri);
  EXPECT_EQ("9783980000109", book.Ean());  // the ISBN, though the uuid comes first
  EXPECT_EQ("en", book.language);
  EXPECT_EQ("2019-04-01", book.issued);
  EXPECT_EQ("Cooking & Food", book.categories.at(0).label);
  EXPECT_EQ("A bold start. Two", book.summary);
  EXPECT_EQ("One Two", book.content);
  EXPECT_EQ("http://lib.example:8080/opds/covers/1.jpg", book.Cover()->href);
  EXPECT_EQ("http://lib.example:8080/thumbs/1.jpg", book.Thumbnail()->href);
  EXPECT_EQ(nullptr, book.NavigationLink());
  EXPECT_EQ(nullptr, book.PriceLink());
  bool ticket = true;
  EXPECT_EQ("EPUB,PDF", Formats(book, &ticket));
  EXPECT_FALSE(ticket);

  // Without an ISBN the first identifier stands in; an ISBN-10 becomes its EAN-13.
  EXPECT_EQ("urn:uuid:22", feed.entries[1].Ean());
  EXPECT_EQ("9780306406157", feed.entries[2].Ean());
  const opds::Link* navigation = feed.entries[3].NavigationLink();
  ASSERT_NE(nullptr, navigation);
  EXPECT_EQ("http://lib.example:8080/opds/authors", navigation->href);
}

// A store: a sample listed before the buy link, prices with currencies, and acquisitions
// through an Adobe ticket, nested two deep.
const char kStoreFeed[] = R"(<feed xmlns="http://www.w3.org/2005/Atom"
    xmlns:opds="http://opds-spec.org/2010/catalog" xmlns:dc="http://purl.org/dc/elements/1.1/">
  <title>Store</title>
  <entry>
    <title>Ticketed</title><id>s1</id>
    <dc:identifier>urn:isbn:9781234567897</dc:identifier>
    <link rel="http://opds-spec.org/acquisition/sample" href="/sample/1.epub" type="application/epub+zip"/>
    <link rel="http://opds-spec.org/acquisition/buy" href="/buy/1" type="application/vnd.adobe.adept+xml">
      <opds:price currencycode="USD">12.99</opds:price>
      <opds:indirectAcquisition type="application/pdf"/>
    </link>
    <link rel="http://opds-spec.org/acquisition/open-access" href="/free/1" type="application/epub+zip"/>
  </entry>
  <entry>
    <title>Deep</title><id>s2</id>
    <link rel="http://opds-spec.org/acquisition/borrow" href="/borrow/2" type="text/xml">
      <opds:indirectAcquisition type="application/vnd.adobe.adept+xml">
        <opds:indirectAcquisition type="application/epub+zip"/>
      </opds:indirectAcquisition>
    </link>
    <link rel="http://opds-spec.org/acquisition" href="/a/2" type="application/pdf">
      <opds:price currencycode="EUR">3,50</opds:price>
    </link>
  </entry>
</feed>)";

TEST(OpdsAtomTest, ReadsAStoreFeedWithPricesAndAdobeTickets) {
  const opds::Feed feed = Parse(kStoreFeed, "https://store.example/catalog/");
  ASSERT_EQ(2u, feed.entries.size());
  const opds::Entry& ticketed = feed.entries[0];
  ASSERT_EQ(3u, ticketed.AcquisitionLinks().size());
  const opds::Link* price = ticketed.PriceLink();
  ASSERT_NE(nullptr, price);
  EXPECT_EQ("https://store.example/buy/1", price->href);  // the buy link's, not the sample's
  EXPECT_EQ(1299, price->PriceCents());
  EXPECT_EQ("USD", price->currency);
  bool ticket = false;
  // The sample is no format of the book; the ticket is noted, its PDF listed.
  EXPECT_EQ("PDF,EPUB", Formats(ticketed, &ticket));
  EXPECT_TRUE(ticket);

  const opds::Entry& deep = feed.entries[1];
  EXPECT_EQ("s2", deep.Ean());  // no identifier at all: the entry's id
  ASSERT_EQ(1u, deep.links[0].indirect.size());
  EXPECT_EQ("application/epub+zip", deep.links[0].indirect[0].nested.at(0).type);
  EXPECT_EQ(-1, deep.links[1].PriceCents());  // "3,50" is no number
  // Prices are read the same in any locale, rounded to the cent.
  const std::pair<const char*, int64_t> prices[] = {
      {"10", 1000}, {".5", 50}, {"4.995", 500}, {"0.01", 1}, {"", -1}, {"-1", -1}, {"1e3", -1}};
  for (const auto& [text, cents] : prices) {
    opds::Link link;
    link.price = text;
    EXPECT_EQ(cents, link.PriceCents()) << text;
  }
  EXPECT_EQ(nullptr, deep.PriceLink());
  EXPECT_EQ("FB2,EPUB,PDF", Formats(deep, &ticket));
  EXPECT_TRUE(ticket);
}

// OPDS 2: authors as a string, an object and an array; groups flattened; navigation
// entries; images; prices and nested acquisitions; a templated search.
const char kOpds2Feed[] = R"({
  "metadata": {"title": "Shelf"},
  "links": [
    {"rel": "self", "href": "catalog.json", "type": "application/opds+json"},
    {"rel": "next", "href": "catalog.json?page=2", "type": "application/opds+json"},
    {"rel": "search", "href": "/search{?query,title,author}", "type": "application/opds+json",
     "templated": true}
  ],
  "facets": [{"metadata": {"title": "Language"},
              "links": [{"href": "?lang=en", "title": "English", "rel": "self"}]}],
  "navigation": [{"href": "new", "title": "New", "type": "application/opds+json"}],
  "publications": [
    {"metadata": {"title": "One", "author": "A. Writer", "identifier": "urn:isbn:9783980000116",
                  "language": ["de", "en"], "description": "<p>Short &amp; sweet</p>",
                  "subject": [{"name": "Sea", "code": "S1"}, "Rivers"]},
     "links": [{"rel": "http://opds-spec.org/acquisition/buy", "href": "/buy/1",
                "type": "text/html",
                "properties": {"price": {"value": 4.5, "currency": "EUR"},
                               "indirectAcquisition": [{"type": "application/vnd.adobe.adept+xml",
                                 "child": [{"type": "application/epub+zip"}]}]}}],
     "images": [{"href": "/c/1.jpg", "type": "image/jpeg"}, {"href": "/c/1s.jpg"}]}
  ],
  "groups": [{"metadata": {"title": "Popular"}, "publications": [
    {"metadata": {"title": "Two", "identifier": "urn:uuid:7", "author": {"name": "B. Poet"}},
     "links": [{"rel": "http://opds-spec.org/acquisition/open-access", "href": "2.epub",
                "type": "application/epub+zip"}]},
    {"metadata": {"title": "Three", "author": [{"name": "C"}, "D", 7]},
     "links": [{"rel": "self", "href": "/p/3"},
               {"rel": "http://opds-spec.org/acquisition", "href": "3.pdf", "type": "application/pdf"}]}
  ]}]
})";

TEST(OpdsJsonTest, ReadsCollectionsGroupsAndEveryAuthorForm) {
  const opds::Feed feed = Parse(kOpds2Feed, "https://shelf.example/opds/catalog.json");
  EXPECT_EQ("Shelf", feed.title);
  EXPECT_EQ("https://shelf.example/opds/catalog.json?page=2", feed.FindLink("next")->href);
  const opds::Link* search = feed.FindLink(opds::rel::kSearch);
  ASSERT_NE(nullptr, search);
  EXPECT_EQ("https://shelf.example/search?query=tide%20pool",
            opds::FillSearchTemplate(search->href, "tide pool"));
  ASSERT_EQ(1u, feed.Facets().size());
  EXPECT_EQ("Language", feed.Facets()[0]->facet_group);
  EXPECT_TRUE(feed.Facets()[0]->active_facet);

  ASSERT_EQ(4u, feed.entries.size());
  EXPECT_EQ("https://shelf.example/opds/new", feed.entries[0].NavigationLink()->href);
  const opds::Entry& one = feed.entries[1];
  EXPECT_EQ("9783980000116", one.Ean());
  EXPECT_EQ("A. Writer", one.AuthorNames());
  EXPECT_EQ("de", one.language);
  EXPECT_EQ("Short & sweet", one.summary);
  ASSERT_EQ(2u, one.categories.size());
  EXPECT_EQ("Rivers", one.categories[1].label);
  EXPECT_EQ(450, one.PriceLink()->PriceCents());
  EXPECT_EQ("https://shelf.example/c/1.jpg", one.Cover()->href);
  EXPECT_EQ("https://shelf.example/c/1s.jpg", one.Thumbnail()->href);
  bool ticket = false;
  EXPECT_EQ("HTM,EPUB", Formats(one, &ticket));  // the shop's page, then what it leads to
  EXPECT_TRUE(ticket);
  EXPECT_EQ("B. Poet", feed.entries[2].AuthorNames());
  EXPECT_EQ("urn:uuid:7", feed.entries[2].Ean());
  EXPECT_EQ("C, D", feed.entries[3].AuthorNames());
  EXPECT_EQ("https://shelf.example/p/3", feed.entries[3].Ean());  // its self link
}

// What careless or older servers send: no Atom namespace, a Latin-1 document, a lone entry
// document, stray HTML entities, OPDS 2 titles and names by language.
TEST(OpdsAtomTest, ReadsWhatCarelessServersSend) {
  const opds::Feed bare = Parse(
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<feed><title>Caf\xe9</title>"
      "<entry><title>B\xfc"
      "cher</title><id>1</id><link rel=\"http://opds-spec.org/acquisition\" "
      "href=\"b.epub\" type=\"application/epub+zip\"/></entry></feed>",
      "http://h.example/x/");
  EXPECT_EQ("Caf\xc3\xa9", bare.title);
  ASSERT_EQ(1u, bare.entries.size());
  EXPECT_EQ(
      "B\xc3\xbc"
      "cher",
      bare.entries[0].title);
  EXPECT_EQ("http://h.example/x/b.epub", bare.entries[0].links.at(0).href);

  const opds::Feed lone = Parse(
      "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>Alone</title>"
      "<link rel=\"http://opds-spec.org/acquisition/buy\" href=\"/b\" type=\"application/pdf\"/>"
      "</entry>",
      "http://h.example/e/1");
  ASSERT_EQ(1u, lone.entries.size());
  EXPECT_EQ("Alone", lone.entries[0].title);

  // "&nbsp;" is no XML entity: the reader stops there and keeps what came before.
  const opds::Feed stray = Parse(
      "<feed xmlns=\"http://www.w3.org/2005/Atom\"><entry><title>Kept</title></entry>"
      "<entry><title>A&nbsp;B</title></entry></feed>",
      "http://h.example/");
  EXPECT_TRUE(stray.truncated);
  ASSERT_GE(stray.entries.size(), 1u);
  EXPECT_EQ("Kept", stray.entries[0].title);

  const opds::Feed languages = Parse(
      R"({"metadata": {"title": "L"}, "publications": [{"metadata": {
           "title": {"fr": "Le Titre", "en": "The Title"},
           "author": {"name": {"en": "Ann"}}}, "links": []}]})",
      "http://h.example/");
  ASSERT_EQ(1u, languages.entries.size());
  EXPECT_FALSE(languages.entries[0].title.empty());
  EXPECT_EQ("Ann", languages.entries[0].AuthorNames());
  EXPECT_EQ(nullptr, languages.entries[0].NavigationLink());
}

TEST(OpdsSearchTest, PicksTheOpdsTemplateAndFillsEveryForm) {
  const char description[] = R"(<?xml version="1.0"?>
<OpenSearchDescription xmlns="http://a9.com/-/spec/opensearch/1.1/">
  <Url type="text/html" template="/web/search?q={searchTerms}"/>
  <Url type="application/atom+xml" template="/opds/search?q={searchTerms}"/>
  <Url type="application/atom+xml;profile=opds-catalog;kind=acquisition"
       template="/opds/find?q={searchTerms}&amp;p={startPage?}&amp;n={count}&amp;l={language}&amp;x={ex:thing?}"/>
</OpenSearchDescription>)";
  std::string url_template;
  ASSERT_TRUE(
      opds::ParseOpenSearchDescription(description, "http://h.example/opds/os.xml", &url_template));
  EXPECT_EQ("http://h.example/opds/find?q=K%C3%B6ln%2B&p=&n=20&l=*&x=",
            opds::FillSearchTemplate(url_template, "K\xc3\xb6ln+"));
  EXPECT_FALSE(opds::ParseOpenSearchDescription(
      R"(<OpenSearchDescription xmlns="http://a9.com/-/spec/opensearch/1.1/">
           <Url type="text/html" template="/web?q={searchTerms}"/></OpenSearchDescription>)",
      "http://h.example/", &url_template));
  EXPECT_EQ("http://h/s?q=a&query=b", opds::FillSearchTemplate("http://h/s?q=a{&query}", "b"));
  EXPECT_EQ("http://h/s?q=a%2Fb",
            opds::FillSearchTemplate("http://h/s?q=%7BsearchTerms%7D", "a/b"));
  EXPECT_TRUE(opds::IsSearchTemplate("http://h/s?q=%7bsearchTerms%7d"));
  EXPECT_TRUE(opds::IsSearchTemplate("http://h/s{?query}"));
  EXPECT_FALSE(opds::IsSearchTemplate("http://h/opensearch.xml"));
}

std::string Repeat(const std::string& text, int times) {
  std::string out;
  out.reserve(text.size() * times);
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

// Each hostile feed ends in a bounded model or a refusal, and quickly.
TEST(OpdsHostileTest, HostileFeedsStayBounded) {
  const auto started = std::chrono::steady_clock::now();
  opds::Feed feed;
  std::string error;
  // Entity expansion: refused before anything expands.
  const std::string laughs =
      "<?xml version=\"1.0\"?><!DOCTYPE feed [<!ENTITY a \"aaaaaaaaaa\">"
      "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
      "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">"
      "<!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\"><!ENTITY g "
      "\"&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;\">]>"
      "<feed xmlns=\"http://www.w3.org/2005/Atom\"><title>&g;&g;&g;&g;&g;&g;&g;&g;</title></feed>";
  EXPECT_FALSE(opds::ParseFeed(laughs, "http://h/", &feed, &error));
  EXPECT_NE(std::string::npos, error.find("entities")) << error;

  // Deep nesting inside an entry and far too many entries: cut at the limits, what came
  // before is kept.
  const std::string head = "<feed xmlns=\"http://www.w3.org/2005/Atom\"><entry><id>first</id>";
  const std::string deep =
      head + Repeat("<x>", 200000) + Repeat("</x>", 200000) + "</entry></feed>";
  ASSERT_TRUE(opds::ParseFeed(deep, "http://h/", &feed, &error)) << error;
  EXPECT_TRUE(feed.truncated);
  ASSERT_EQ(1u, feed.entries.size());
  EXPECT_EQ("first", feed.entries[0].id);

  opds::Limits limits;
  const std::string many = std::string("<feed xmlns=\"http://www.w3.org/2005/Atom\">") + "<entry>" +
                           Repeat("<link href=\"a\"/>", 100) + "</entry>" +
                           Repeat("<entry><title>t</title></entry>", 6000) + "</feed>";
  ASSERT_TRUE(opds::ParseFeed(many, "http://h/", &feed, &error));
  EXPECT_TRUE(feed.truncated);
  EXPECT_EQ(static_cast<size_t>(limits.max_entries), feed.entries.size());
  EXPECT_EQ(static_cast<size_t>(limits.max_links_per_entry), feed.entries[0].links.size());

  // One enormous title is cut (on a character boundary); a small model budget stops the feed.
  const std::string huge_title = "<feed xmlns=\"http://www.w3.org/2005/Atom\"><entry><title>" +
                                 Repeat("\xc3\xa9", 3 << 20) + "</title></entry></feed>";
  ASSERT_TRUE(opds::ParseFeed(huge_title, "http://h/", &feed, &error));
  EXPECT_EQ(limits.max_text_bytes, feed.entries[0].title.size());
  opds::Limits tight;
  tight.max_model_bytes = int64_t{64} * 1024;
  const std::string wide =
      "<feed xmlns=\"http://www.w3.org/2005/Atom\">" +
      Repeat("<entry><title>" + std::string(1000, 'w') + "</title></entry>", 1000) + "</feed>";
  ASSERT_TRUE(opds::ParseAtomFeed(wide, "http://h/", &feed, &error, tight));
  EXPECT_TRUE(feed.truncated);
  EXPECT_LT(feed.entries.size(), 70u);

  // Cut off half-way: the entries read so far.
  const std::string cut = std::string(kStoreFeed).substr(0, std::string(kStoreFeed).find("Deep"));
  ASSERT_TRUE(opds::ParseFeed(cut, "http://h/", &feed, &error));
  EXPECT_TRUE(feed.truncated);
  EXPECT_EQ("Ticketed", feed.entries.at(0).title);

  // JSON: too deep, too many values, or not a collection at all.
  // JSON nested 100000 deep but well formed: refused at the depth limit, not by recursion.
  EXPECT_FALSE(opds::ParseFeed("{\"a\":" + Repeat("[", 100000) + Repeat("]", 100000) + "}",
                               "http://h/", &feed, &error));
  EXPECT_NE(std::string::npos, error.find("nested")) << error;
  EXPECT_FALSE(opds::ParseFeed("{\"publications\":[" + Repeat("0,", 300000) + "0]}", "http://h/",
                               &feed, &error));
  EXPECT_NE(std::string::npos, error.find("too large")) << error;
  EXPECT_FALSE(opds::ParseFeed("[1, 2]", "http://h/", &feed, &error));
  EXPECT_FALSE(opds::ParseFeed("<html><body>Log in</body></html>", "http://h/", &feed, &error));
  EXPECT_FALSE(opds::ParseFeed("", "http://h/", &feed, &error));

  // All of it in well under the time a user waits for a page (generous for qemu and ASan).
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
}

TEST(OpdsFetchTest, FollowsRedirectsResolvesAgainstTheFinalAddressAndSearches) {
  vistrel_test::FakeServer server;
  const std::string base = server.base_url();
  server.Set("/opds", vistrel_test::Redirect(302, "/catalog/root.xml"));
  server.Set("/catalog/root.xml",
             vistrel_test::Answer(R"(<feed xmlns="http://www.w3.org/2005/Atom">
                 <link rel="search" href="os.xml" type="application/opensearchdescription+xml"/>
                 <entry><title>All</title><link rel="subsection" href="all.xml"
                   type="application/atom+xml;profile=opds-catalog"/></entry></feed>)",
                                  200, "text/xml"));  // servers that send a plain XML type
  server.Set("/catalog/os.xml",
             vistrel_test::Answer(
                 R"(<OpenSearchDescription xmlns="http://a9.com/-/spec/opensearch/1.1/">
                 <Url type="application/atom+xml" template="find?q={searchTerms}"/>
               </OpenSearchDescription>)",
                 200, "application/opensearchdescription+xml"));
  server.Set("/catalog/json",
             vistrel_test::Answer(R"({"metadata": {"title": "J"}})", 200, "application/opds+json"));
  server.Set("/catalog/page.html", vistrel_test::Answer("<html></html>", 200, "text/html"));
  server.Set("/loop", vistrel_test::Redirect(301, "/loop"));

  opds::Feed feed;
  std::string error;
  opds::FetchFailure failure = opds::FetchFailure::kNone;
  ASSERT_TRUE(opds::FetchFeed(base + "/opds", &feed, &error)) << error;
  EXPECT_EQ(base + "/catalog/root.xml", feed.url);
  EXPECT_EQ(base + "/catalog/all.xml", feed.entries.at(0).NavigationLink()->href);
  std::string url;
  ASSERT_TRUE(opds::SearchUrl(feed, "blue whale", &url, &error)) << error;
  EXPECT_EQ(base + "/catalog/find?q=blue%20whale", url);
  ASSERT_TRUE(opds::FetchFeed(base + "/catalog/json", &feed, &error)) << error;
  EXPECT_EQ("J", feed.title);
  EXPECT_FALSE(opds::SearchUrl(feed, "x", &url, &error));

  EXPECT_FALSE(
      opds::FetchFeed(base + "/catalog/page.html", &feed, &error, opds::FetchOptions(), &failure));
  EXPECT_EQ(opds::FetchFailure::kNotAFeed, failure);
  EXPECT_FALSE(opds::FetchFeed(base + "/missing", &feed, &error, opds::FetchOptions(), &failure));
  EXPECT_EQ(opds::FetchFailure::kStatus, failure);
  EXPECT_FALSE(opds::FetchFeed(base + "/loop", &feed, &error, opds::FetchOptions(), &failure));
  EXPECT_EQ(opds::FetchFailure::kTransfer, failure);
  EXPECT_NE(std::string::npos, error.find("redirects")) << error;
  EXPECT_FALSE(
      opds::FetchFeed("file:///etc/passwd", &feed, &error, opds::FetchOptions(), &failure));
  EXPECT_EQ(opds::FetchFailure::kTransfer, failure);
}

}  // namespace
