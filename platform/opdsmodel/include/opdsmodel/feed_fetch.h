// Fetching OPDS feeds over HTTP(S) through the device's request runner: redirects followed (a
// few hops), the runner's size cap and a time limit on every request, and the feed read with
// the bounded readers of opdsmodel/feed_reader.h.
#ifndef OPDSMODEL_FEED_FETCH_H_
#define OPDSMODEL_FEED_FETCH_H_

#include <string>

#include "opdsmodel/feed.h"
#include "opdsmodel/feed_reader.h"

namespace norbel {
namespace opds {

struct FetchOptions {
  unsigned int time_limit_s = 30;  // per request, connection included
  int max_redirects = 5;
  Limits limits;
};

// Why a fetch failed.
enum class FetchFailure {
  kNone,
  kTransfer,  // no answer: refused, time-out, TLS, too large, too many redirects, bad address
  kStatus,    // the server answered with a status other than 200
  kNotAFeed,  // the answer is not an OPDS document
};

// Fetches the document at `url` (http or https) and reads it into `*feed`; Feed::url is the
// address it was finally read from (after redirects). Returns false with `*error` set (one
// line, naming the address) on a transfer failure, a status other than 200, or a body that is
// not an OPDS feed; `*failure` (when not null) tells which.
bool FetchFeed(const std::string& url, Feed* feed, std::string* error,
               const FetchOptions& options = FetchOptions(), FetchFailure* failure = nullptr);

// The address that searches `feed`'s catalogue for `terms`, from its search link: an
// OpenSearch description (fetched and read), or a link that is itself a template (an Atom
// link holding "{searchTerms}", an OPDS 2 "{?query}" template). False with `*error` set when
// the feed offers no search or its description cannot be fetched or read.
bool SearchUrl(const Feed& feed, const std::string& terms, std::string* url, std::string* error,
               const FetchOptions& options = FetchOptions());

// Fetches the body at `url` following redirects, with the same caps as FetchFeed. Stores the
// final address and the declared content type. For documents that are not feeds (an
// OpenSearch description).
bool FetchDocument(const std::string& url, std::string* body, std::string* final_url,
                   std::string* content_type, std::string* error,
                   const FetchOptions& options = FetchOptions(), FetchFailure* failure = nullptr);

}  // namespace opds
}  // namespace norbel

#endif  // OPDSMODEL_FEED_FETCH_H_
