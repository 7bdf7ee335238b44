// Reading OPDS documents into opds::Feed: OPDS 1.2 Atom feeds (streamed through expat) and
// OPDS 2.0 JSON collections (jsoncpp), and the OpenSearch description that a feed's search
// link names. Every reader is bounded: a hostile document cannot make it use more than about
// Limits::max_model_bytes of memory beyond the document itself, nor time beyond one pass over
// it (entity expansion is capped; deep nesting stops the reader).
#ifndef OPDSMODEL_FEED_READER_H_
#define OPDSMODEL_FEED_READER_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "opdsmodel/feed.h"

namespace norbel {
namespace opds {

// What one document may hold. When a feed passes a limit the reader keeps what it has read,
// sets Feed::truncated and stops; a single over-long text is cut to its limit instead.
struct Limits {
  int max_entries = 5000;
  int max_links_per_entry = 64;  // also authors, identifiers and categories of an entry
  int max_feed_links = 256;      // the feed's own links (facets can be many)
  int max_depth = 64;            // element or JSON nesting
  int max_indirect_depth = 4;    // acquisitions nested in acquisitions
  size_t max_text_bytes = size_t{64} * 1024;  // one title, summary, address, ...
  int64_t max_model_bytes = 16 << 20;         // everything the feed's model stores, estimated
  // JSON values an OPDS 2 document may hold; a larger one is refused before it is parsed
  // (the parsed tree costs many times the text of tiny values).
  int64_t max_json_values = 250000;
};

// Which reader a document needs: kOpds2 for a JSON document, kAtom otherwise.
enum class Format { kAtom, kOpds2 };
// Decides from the declared content type ("application/opds+json", "application/json" ->
// kOpds2; atom or xml -> kAtom) and, when that says nothing, from the first non-blank byte.
Format DetectFormat(const std::string& content_type, std::string_view body);

// Reads `body` (either format, see DetectFormat) into `*feed`, resolving its links against
// `base_url` (the address it came from). Returns false with `*error` set when the body is not
// an OPDS document at all (not XML or JSON, or neither an Atom feed nor an OPDS 2 collection);
// a document that is cut off or passes a limit still gives what was read before (true,
// Feed::truncated set). A single Atom entry document is read as a feed of one entry.
bool ParseFeed(std::string_view body, const std::string& base_url, Feed* feed, std::string* error,
               const Limits& limits = Limits());
// The same with the format given.
bool ParseAtomFeed(std::string_view body, const std::string& base_url, Feed* feed,
                   std::string* error, const Limits& limits = Limits());
bool ParseOpds2Feed(std::string_view body, const std::string& base_url, Feed* feed,
                    std::string* error, const Limits& limits = Limits());

// Reads an OpenSearch description document and picks the template that answers with an OPDS
// feed: a Url whose type is an Atom or OPDS type (preferring an OPDS catalogue profile), never
// an HTML one. The template is resolved against `base_url` and keeps its placeholders. False
// when the document holds no such template.
bool ParseOpenSearchDescription(std::string_view body, const std::string& base_url,
                                std::string* url_template);

// Fills a search template with `terms`: OpenSearch "{searchTerms}" gets the terms
// percent-encoded, other OpenSearch parameters get their defaults ("{startPage?}" and any
// optional "{name?}" vanish, "{count}" 20, "{startIndex}" 1, "{startPage}" 1, "{language}"
// "*", encodings "UTF-8"), and an OPDS 2 URI template "{?query}" (or "{?query,title}" and
// "{&query}") becomes "?query=<terms>" with its other variables left out.
std::string FillSearchTemplate(const std::string& url_template, const std::string& terms);
// True when `href` is a template (holds "{searchTerms}" or a "{?...}" / "{&...}" expression).
// Here and in FillSearchTemplate, "%7BsearchTerms%7D" counts as "{searchTerms}": some servers
// percent-encode the braces of their links.
bool IsSearchTemplate(const std::string& href);

}  // namespace opds
}  // namespace norbel

#endif  // OPDSMODEL_FEED_READER_H_
