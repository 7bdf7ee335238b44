// What the Atom and the OPDS 2 readers share: the memory budget of a feed's model, address
// resolution, and markup reduced to text.
#ifndef OPDSMODEL_SRC_READER_SUPPORT_H_
#define OPDSMODEL_SRC_READER_SUPPORT_H_

#include <cstdint>
#include <string>

#include "nbutils/url.h"
#include "opdsmodel/feed_reader.h"

namespace norbel {
namespace opds {

// Counts what a model stores (text bytes plus a fixed cost per object) against
// Limits::max_model_bytes; once spent, every further charge fails.
class Budget {
 public:
  explicit Budget(int64_t bytes) : left_(bytes) {}
  // False when the budget is spent (and stays spent).
  bool Charge(size_t bytes) {
    left_ -= static_cast<int64_t>(bytes) + kObjectCost;
    return left_ >= 0;
  }
  bool spent() const { return left_ < 0; }

 private:
  static constexpr int64_t kObjectCost = 64;
  int64_t left_;
};

// Resolves hrefs against the feed's address with curl's URL API. Templates keep their
// braces.
class Resolver {
 public:
  explicit Resolver(const std::string& base_url) : base_(base_url) {}
  // The absolute form of `href`; `href` itself when it cannot be resolved (no usable base).
  std::string Resolve(const std::string& href) const;

 private:
  utilities::Url base_;
};

// The text of an HTML fragment: tags dropped (each one counts as a blank), character
// references decoded, runs of blanks collapsed to one, ends trimmed.
std::string HtmlToText(const std::string& html);
// Runs of blanks (space, tab, line ends) collapsed to one, ends trimmed.
std::string CollapseBlanks(const std::string& text);
// `text` cut to at most `max_bytes`, never inside a UTF-8 sequence.
std::string CutText(const std::string& text, size_t max_bytes);

}  // namespace opds
}  // namespace norbel

#endif  // OPDSMODEL_SRC_READER_SUPPORT_H_
