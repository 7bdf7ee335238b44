// OPDS 2.0: a JSON collection (navigation, publications, groups, facets) read by jsoncpp.
#include <json/reader.h>
#include <json/value.h>

#include <cmath>
#include <exception>
#include <memory>

#include "opdsmodel/feed_reader.h"
#include "reader_support.h"

namespace norbel {
namespace opds {
namespace {

// How many values the document can hold at most: every value but the first follows a '[',
// ',' or ':' outside a string. Counted before parsing, so that a document of many tiny
// values cannot make jsoncpp's tree many times larger than the document.
int64_t CountValues(std::string_view body) {
  int64_t count = 1;
  bool in_string = false;
  for (size_t i = 0; i < body.size(); ++i) {
    const char c = body[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == ',' || c == ':') {
      ++count;
    }
  }
  return count;
}

// A JSON price as text in the form "12.34", whatever the process's locale.
std::string PriceText(double value) {
  if (!(value >= 0) || value > 1e12) return std::string();
  const int64_t cents = std::llround(value * 100.0);
  std::string text = std::to_string(cents / 100) + ".";
  text += static_cast<char>('0' + cents % 100 / 10);
  text += static_cast<char>('0' + cents % 10);
  return text;
}

class Opds2Reader {
 public:
  Opds2Reader(const std::string& base_url, Feed* feed, const Limits& limits)
      : feed_(feed), limits_(limits), budget_(limits.max_model_bytes), resolver_(base_url) {}

  void Read(const Json::Value& root);

 private:
  std::string Text(const Json::Value& value);
  bool ReadLink(const Json::Value& value, Link* link);
  void ReadIndirect(const Json::Value& list, int depth, std::vector<IndirectType>* out);
  void AddFeedLinks(const Json::Value& list, const std::string& facet_group);
  void AddNavigation(const Json::Value& list);
  void AddPublications(const Json::Value& list);
  void ReadPublication(const Json::Value& publication, Entry* entry);
  void ReadAuthors(const Json::Value& value, Entry* entry);
  void AddSubject(const Json::Value& subject, Entry* entry);
  Entry* NewEntry();

  Feed* feed_;
  const Limits& limits_;
  Budget budget_;
  Resolver resolver_;
};

// A string value cut to the text limit and charged; "" for anything else.
std::string Opds2Reader::Text(const Json::Value& value) {
  if (!value.isString()) return std::string();
  std::string text = CutText(value.asString(), limits_.max_text_bytes);
  if (!budget_.Charge(text.size())) {
    feed_->truncated = true;
    return std::string();
  }
  return text;
}

bool Opds2Reader::ReadLink(const Json::Value& value, Link* link) {
  if (!value.isObject()) return false;
  link->href = resolver_.Resolve(Text(value["href"]));
  const Json::Value& relation = value["rel"];
  link->rel = Text(relation.isArray() && !relation.empty() ? relation[0] : relation);
  link->type = Text(value["type"]);
  link->title = Text(value["title"]);
  const Json::Value& properties = value["properties"];
  if (properties.isObject()) {
    const Json::Value& price = properties["price"];
    if (price.isObject()) {
      const Json::Value& amount = price["value"];
      if (amount.isNumeric()) {
        link->price = PriceText(amount.asDouble());
      } else {
        link->price = Text(amount);
      }
      link->currency = Text(price["currency"]);
    }
    ReadIndirect(properties["indirectAcquisition"], 0, &link->indirect);
  }
  return !link->href.empty();
}

void Opds2Reader::ReadIndirect(const Json::Value& list, int depth, std::vector<IndirectType>* out) {
  if (!list.isArray() || depth >= limits_.max_indirect_depth) return;
  for (const Json::Value& item : list) {
    if (static_cast<int>(out->size()) >= limits_.max_links_per_entry) return;
    if (!item.isObject() || !budget_.Charge(sizeof(IndirectType))) continue;
    IndirectType type;
    type.type = Text(item["type"]);
    ReadIndirect(item["child"], depth + 1, &type.nested);
    out->push_back(std::move(type));
  }
}

void Opds2Reader::AddFeedLinks(const Json::Value& list, const std::string& facet_group) {
  if (!list.isArray()) return;
  for (const Json::Value& item : list) {
    if (static_cast<int>(feed_->links.size()) >= limits_.max_feed_links) {
      feed_->truncated = true;
      return;
    }
    Link link;
    if (!ReadLink(item, &link) || !budget_.Charge(sizeof(Link))) continue;
    if (!facet_group.empty()) {
      link.facet_group = facet_group;
      link.active_facet = link.rel == rel::kSelf;
      link.rel = rel::kFacet;
    }
    feed_->links.push_back(std::move(link));
  }
}

Entry* Opds2Reader::NewEntry() {
  if (static_cast<int>(feed_->entries.size()) >= limits_.max_entries ||
      !budget_.Charge(sizeof(Entry))) {
    feed_->truncated = true;
    return nullptr;
  }
  feed_->entries.emplace_back();
  return &feed_->entries.back();
}

// Navigation links become entries of one link that leads to the sub-catalogue.
void Opds2Reader::AddNavigation(const Json::Value& list) {
  if (!list.isArray()) return;
  for (const Json::Value& item : list) {
    Link link;
    if (!ReadLink(item, &link)) continue;
    Entry* entry = NewEntry();
    if (entry == nullptr) return;
    if (link.rel.empty()) link.rel = rel::kSubsection;
    entry->id = link.href;
    entry->title = link.title;
    entry->links.push_back(std::move(link));
  }
}

void Opds2Reader::AddPublications(const Json::Value& list) {
  if (!list.isArray()) return;
  for (const Json::Value& item : list) {
    if (!item.isObject()) continue;
    Entry* entry = NewEntry();
    if (entry == nullptr) return;
    ReadPublication(item, entry);
  }
}

void Opds2Reader::ReadAuthors(const Json::Value& value, Entry* entry) {
  if (value.isArray()) {
    for (const Json::Value& item : value) {
      if (!item.isArray()) ReadAuthors(item, entry);  // one level: no arrays of arrays
    }
    return;
  }
  if (static_cast<int>(entry->authors.size()) >= limits_.max_links_per_entry) return;
  Author author;
  if (value.isString()) {
    author.name = Text(value);
  } else if (value.isObject()) {
    const Json::Value& name = value["name"];
    // A name may be a map of languages to names: take the first.
    author.name = Text(name.isObject() && !name.empty() ? *name.begin() : name);
    const Json::Value& links = value["links"];
    if (links.isArray() && !links.empty() && links[0].isObject()) {
      author.uri = resolver_.Resolve(Text(links[0]["href"]));
    }
  }
  if (!author.name.empty()) entry->authors.push_back(std::move(author));
}

// A subject is a name or an object with name, code and scheme.
void Opds2Reader::AddSubject(const Json::Value& subject, Entry* entry) {
  if (static_cast<int>(entry->categories.size()) >= limits_.max_links_per_entry) return;
  if (subject.isString()) {
    const std::string name = Text(subject);
    entry->categories.push_back({name, name, std::string()});
  } else if (subject.isObject()) {
    entry->categories.push_back(
        {Text(subject["code"]), Text(subject["name"]), Text(subject["scheme"])});
  }
}

void Opds2Reader::ReadPublication(const Json::Value& publication, Entry* entry) {
  const Json::Value& metadata = publication["metadata"];
  if (metadata.isObject()) {
    entry->id = Text(metadata["identifier"]);
    if (!entry->id.empty()) entry->identifiers.push_back(entry->id);
    const Json::Value& title = metadata["title"];
    entry->title =
        CollapseBlanks(Text(title.isObject() && !title.empty() ? *title.begin() : title));
    ReadAuthors(metadata["author"], entry);
    const Json::Value& language = metadata["language"];
    entry->language = Text(language.isArray() && !language.empty() ? language[0] : language);
    entry->summary = HtmlToText(Text(metadata["description"]));
    entry->issued = Text(metadata["published"]);
    entry->updated = Text(metadata["modified"]);
    const Json::Value& publisher = metadata["publisher"];
    entry->publisher = Text(publisher.isObject() ? publisher["name"] : publisher);
    const Json::Value& subjects = metadata["subject"];
    if (subjects.isArray()) {
      for (const Json::Value& subject : subjects) AddSubject(subject, entry);
    } else {
      AddSubject(subjects, entry);
    }
  }
  for (const char* key : {"links", "images"}) {
    const Json::Value& links = publication[key];
    if (!links.isArray()) continue;
    int image = 0;
    for (const Json::Value& item : links) {
      if (static_cast<int>(entry->links.size()) >= limits_.max_links_per_entry) break;
      Link link;
      if (!ReadLink(item, &link) || !budget_.Charge(sizeof(Link))) continue;
      // Images come largest first by convention: the first is the cover, a second one the
      // thumbnail.
      if (key[0] == 'i' && link.rel.empty())
        link.rel = image++ == 0 ? rel::kImage : rel::kThumbnail;
      entry->links.push_back(std::move(link));
    }
  }
  if (entry->id.empty()) {
    for (const Link& link : entry->links) {
      if (link.rel == rel::kSelf) entry->id = link.href;
    }
  }
}

void Opds2Reader::Read(const Json::Value& root) {
  const Json::Value& metadata = root["metadata"];
  if (metadata.isObject()) {
    feed_->title = Text(metadata["title"]);
    feed_->id = Text(metadata["identifier"]);
    feed_->updated = Text(metadata["modified"]);
  }
  AddFeedLinks(root["links"], std::string());
  const Json::Value& facets = root["facets"];
  if (facets.isArray()) {
    for (const Json::Value& facet : facets) {
      if (!facet.isObject()) continue;
      const Json::Value& facet_metadata = facet["metadata"];
      std::string group = facet_metadata.isObject() ? Text(facet_metadata["title"]) : "";
      AddFeedLinks(facet["links"], group.empty() ? "facet" : group);
    }
  }
  AddNavigation(root["navigation"]);
  AddPublications(root["publications"]);
  const Json::Value& groups = root["groups"];
  if (groups.isArray()) {
    for (const Json::Value& group : groups) {
      if (!group.isObject()) continue;
      AddNavigation(group["navigation"]);
      AddPublications(group["publications"]);
    }
  }
  if (budget_.spent()) feed_->truncated = true;
}

}  // namespace

bool ParseOpds2Feed(std::string_view body, const std::string& base_url, Feed* feed,
                    std::string* error, const Limits& limits) {
  *feed = Feed();
  feed->url = base_url;
  const int64_t values = CountValues(body);
  if (values > limits.max_json_values) {
    *error = "the OPDS 2 feed is too large (" + std::to_string(values) + " values)";
    return false;
  }
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = limits.max_depth;
  builder["collectComments"] = false;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string parse_error;
  try {
    if (!reader->parse(body.data(), body.data() + body.size(), &root, &parse_error)) {
      *error = "not an OPDS feed (JSON error: " + CollapseBlanks(parse_error) + ")";
      return false;
    }
  } catch (const std::exception&) {  // jsoncpp throws when its stack limit is passed
    *error = "not an OPDS feed (JSON nested deeper than " + std::to_string(limits.max_depth) + ")";
    return false;
  }
  if (!root.isObject() || (!root.isMember("metadata") && !root.isMember("publications") &&
                           !root.isMember("navigation") && !root.isMember("groups"))) {
    *error = "not an OPDS feed (JSON, but not an OPDS 2 collection)";
    return false;
  }
  Opds2Reader(base_url, feed, limits).Read(root);
  return true;
}

}  // namespace opds
}  // namespace norbel
