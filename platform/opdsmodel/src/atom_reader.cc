// OPDS 1.2: an Atom feed read by expat as it streams, with namespaces under any prefix.
#include <expat.h>

#include <cstring>
#include <memory>

#include "opdsmodel/feed_reader.h"
#include "reader_support.h"

namespace norbel {
namespace opds {
namespace {

constexpr char kSeparator = '\x01';  // between namespace and local name; never in XML text
constexpr char kAtomNs[] = "http://www.w3.org/2005/Atom";
constexpr char kOpdsNs[] = "http://opds-spec.org/2010/catalog";
constexpr char kDcTermsNs[] = "http://purl.org/dc/terms/";
constexpr char kDcElementsNs[] = "http://purl.org/dc/elements/1.1/";
constexpr size_t kChunkBytes = size_t{256} * 1024;

struct Name {
  std::string ns;
  std::string local;
};

Name SplitName(const char* name) {
  const char* separator = std::strchr(name, kSeparator);
  if (separator == nullptr) return {std::string(), name};
  return {std::string(name, separator), separator + 1};
}

// Atom elements, also when a careless server forgot the namespace.
bool IsAtom(const Name& name, const char* local) {
  return (name.ns == kAtomNs || name.ns.empty()) && name.local == local;
}
bool IsDc(const Name& name, const char* local) {
  return (name.ns == kDcTermsNs || name.ns == kDcElementsNs) && name.local == local;
}
bool IsOpds(const Name& name, const char* local) {
  return name.ns == kOpdsNs && name.local == local;
}

// The value of an attribute by local name (unprefixed, or under any namespace when
// `any_namespace`).
std::string Attribute(const char** attributes, const char* local, bool any_namespace = false) {
  for (int i = 0; attributes[i] != nullptr; i += 2) {
    const Name name = SplitName(attributes[i]);
    if (name.local == local && (name.ns.empty() || any_namespace)) return attributes[i + 1];
  }
  return std::string();
}

// Which field the text being collected belongs to.
enum class Field {
  kNone,
  kFeedId,
  kFeedTitle,
  kFeedUpdated,
  kId,
  kTitle,
  kUpdated,
  kPublished,
  kIssued,
  kSummary,
  kContent,
  kIdentifier,
  kLanguage,
  kPublisher,
  kAuthorName,
  kAuthorUri,
  kPrice,
};

class AtomReader {
 public:
  AtomReader(const std::string& base_url, Feed* feed, const Limits& limits)
      : feed_(feed), limits_(limits), budget_(limits.max_model_bytes), resolver_(base_url) {}

  bool Read(std::string_view body, std::string* error);

 private:
  static void XMLCALL OnStart(void* self, const char* name, const char** attributes) {
    static_cast<AtomReader*>(self)->Start(SplitName(name), attributes);
  }
  static void XMLCALL OnEnd(void* self, const char* name) {
    static_cast<AtomReader*>(self)->End(SplitName(name));
  }
  static void XMLCALL OnEntityDeclaration(void* self, const XML_Char*, int, const XML_Char*, int,
                                          const XML_Char*, const XML_Char*, const XML_Char*,
                                          const XML_Char*) {
    auto* reader = static_cast<AtomReader*>(self);
    reader->declares_entities_ = true;
    XML_StopParser(reader->parser_, XML_FALSE);
  }
  static void XMLCALL OnText(void* self, const char* text, int length) {
    static_cast<AtomReader*>(self)->Text(text, length);
  }

  void Start(const Name& name, const char** attributes);
  void End(const Name& name);
  void Text(const char* text, int length);
  void StartInEntry(const Name& name, const char** attributes);
  void StartLink(const char** attributes);
  void StartIndirect(const char** attributes);
  void Capture(Field field, const char** attributes);
  void Store(Field field, std::string text);
  // Stops the parser: the feed passed a limit.
  void Stop();
  bool Charge(size_t bytes);

  Feed* feed_;
  const Limits& limits_;
  Budget budget_;
  Resolver resolver_;
  XML_Parser parser_ = nullptr;
  int depth_ = 0;
  bool root_ok_ = false;
  bool root_refused_ = false;
  bool declares_entities_ = false;
  std::string root_name_;

  Entry* entry_ = nullptr;
  int entry_depth_ = 0;
  Author* author_ = nullptr;
  int author_depth_ = 0;
  Link* link_ = nullptr;
  int link_depth_ = 0;
  std::vector<IndirectType*> indirect_;  // open indirect acquisitions, innermost last
  int indirect_skipped_ = 0;             // nesting levels past the limit

  Field field_ = Field::kNone;
  int field_depth_ = 0;
  bool field_markup_ = false;  // html or xhtml: reduced to text at the end
  std::string text_;
};

bool AtomReader::Charge(size_t bytes) {
  if (budget_.Charge(bytes)) return true;
  Stop();
  return false;
}

void AtomReader::Stop() {
  feed_->truncated = true;
  XML_StopParser(parser_, XML_FALSE);
}

void AtomReader::Start(const Name& name, const char** attributes) {
  ++depth_;
  if (depth_ > limits_.max_depth) return Stop();
  if (field_ != Field::kNone) {  // markup inside a text construct (xhtml)
    text_ += ' ';
    return;
  }
  if (depth_ == 1) {
    root_name_ = CutText(name.local, 64);  // it goes into the error message
    if (IsAtom(name, "feed")) {
      root_ok_ = true;
    } else if (IsAtom(name, "entry")) {  // a lone entry document
      root_ok_ = true;
      StartInEntry(name, attributes);
    } else {
      root_refused_ = true;
      XML_StopParser(parser_, XML_FALSE);
    }
    return;
  }
  if (entry_ != nullptr) return StartInEntry(name, attributes);
  if (IsAtom(name, "entry") && depth_ == 2) return StartInEntry(name, attributes);
  if (depth_ != 2) return;
  if (IsAtom(name, "link")) return StartLink(attributes);
  if (IsAtom(name, "id")) return Capture(Field::kFeedId, attributes);
  if (IsAtom(name, "title")) return Capture(Field::kFeedTitle, attributes);
  if (IsAtom(name, "updated")) return Capture(Field::kFeedUpdated, attributes);
}

void AtomReader::StartInEntry(const Name& name, const char** attributes) {
  if (entry_ == nullptr) {
    if (static_cast<int>(feed_->entries.size()) >= limits_.max_entries) return Stop();
    if (!Charge(sizeof(Entry))) return;
    feed_->entries.emplace_back();
    entry_ = &feed_->entries.back();
    entry_depth_ = depth_;
    return;
  }
  if (link_ != nullptr) {
    if (IsOpds(name, "indirectAcquisition")) return StartIndirect(attributes);
    if (IsOpds(name, "price") && depth_ == link_depth_ + 1) {
      link_->currency = Attribute(attributes, "currencycode", true);
      return Capture(Field::kPrice, attributes);
    }
    return;
  }
  if (author_ != nullptr) {
    if (depth_ != author_depth_ + 1) return;
    if (IsAtom(name, "name")) return Capture(Field::kAuthorName, attributes);
    if (IsAtom(name, "uri")) return Capture(Field::kAuthorUri, attributes);
    return;
  }
  if (depth_ != entry_depth_ + 1) return;
  const int per_entry = limits_.max_links_per_entry;
  if (IsAtom(name, "link")) return StartLink(attributes);
  if (IsAtom(name, "author") || IsDc(name, "creator")) {
    if (static_cast<int>(entry_->authors.size()) >= per_entry || !Charge(sizeof(Author))) return;
    entry_->authors.emplace_back();
    if (IsDc(name, "creator")) return Capture(Field::kAuthorName, attributes);
    author_ = &entry_->authors.back();
    author_depth_ = depth_;
    return;
  }
  if (IsAtom(name, "category")) {
    if (static_cast<int>(entry_->categories.size()) >= per_entry) return;
    Category category{Attribute(attributes, "term"), Attribute(attributes, "label"),
                      Attribute(attributes, "scheme")};
    if (!Charge(category.term.size() + category.label.size() + category.scheme.size())) return;
    entry_->categories.push_back(std::move(category));
    return;
  }
  if (IsAtom(name, "id")) return Capture(Field::kId, attributes);
  if (IsAtom(name, "title")) return Capture(Field::kTitle, attributes);
  if (IsAtom(name, "updated")) return Capture(Field::kUpdated, attributes);
  if (IsAtom(name, "published")) return Capture(Field::kPublished, attributes);
  if (IsAtom(name, "summary")) return Capture(Field::kSummary, attributes);
  if (IsAtom(name, "content")) return Capture(Field::kContent, attributes);
  if (IsDc(name, "identifier")) return Capture(Field::kIdentifier, attributes);
  if (IsDc(name, "language")) return Capture(Field::kLanguage, attributes);
  if (IsDc(name, "issued")) return Capture(Field::kIssued, attributes);
  if (IsDc(name, "publisher")) return Capture(Field::kPublisher, attributes);
}

void AtomReader::StartLink(const char** attributes) {
  std::vector<Link>& links = entry_ != nullptr ? entry_->links : feed_->links;
  const int cap = entry_ != nullptr ? limits_.max_links_per_entry : limits_.max_feed_links;
  if (static_cast<int>(links.size()) >= cap) return;
  Link link;
  link.href = resolver_.Resolve(CutText(Attribute(attributes, "href"), limits_.max_text_bytes));
  link.rel = CutText(Attribute(attributes, "rel"), limits_.max_text_bytes);
  link.type = CutText(Attribute(attributes, "type"), limits_.max_text_bytes);
  link.title = CutText(Attribute(attributes, "title"), limits_.max_text_bytes);
  for (int i = 0; attributes[i] != nullptr; i += 2) {
    const Name attribute = SplitName(attributes[i]);
    if (attribute.ns != kOpdsNs) continue;
    if (attribute.local == "facetGroup") {
      link.facet_group = CutText(attributes[i + 1], limits_.max_text_bytes);
    }
    if (attribute.local == "activeFacet")
      link.active_facet = !std::strcmp(attributes[i + 1], "true");
  }
  if (!Charge(link.href.size() + link.rel.size() + link.type.size() + link.title.size() +
              link.facet_group.size() + sizeof(Link))) {
    return;
  }
  links.push_back(std::move(link));
  link_ = &links.back();
  link_depth_ = depth_;
}

void AtomReader::StartIndirect(const char** attributes) {
  const bool open_parent = static_cast<int>(indirect_.size()) == depth_ - link_depth_ - 1;
  std::vector<IndirectType>& siblings =
      indirect_.empty() ? link_->indirect : indirect_.back()->nested;
  if (!open_parent || indirect_skipped_ > 0 ||
      static_cast<int>(indirect_.size()) >= limits_.max_indirect_depth ||
      static_cast<int>(siblings.size()) >= limits_.max_links_per_entry) {
    ++indirect_skipped_;
    return;
  }
  IndirectType type;
  type.type = CutText(Attribute(attributes, "type"), limits_.max_text_bytes);
  if (!Charge(type.type.size() + sizeof(IndirectType))) return;
  siblings.push_back(std::move(type));
  indirect_.push_back(&siblings.back());
}

void AtomReader::Capture(Field field, const char** attributes) {
  field_ = field;
  field_depth_ = depth_;
  const std::string type = Attribute(attributes, "type");
  field_markup_ = type == "html" || type == "xhtml" || type == "text/html";
  text_.clear();
}

void AtomReader::Text(const char* text, int length) {
  if (field_ == Field::kNone) return;
  const size_t room = limits_.max_text_bytes + 4 > text_.size()
                          ? limits_.max_text_bytes + 4 - text_.size()
                          : 0;  // a little over the cap, so that the cut can see a whole sequence
  text_.append(text, std::min(room, static_cast<size_t>(length)));
}

void AtomReader::End(const Name& name) {
  const int depth = depth_--;
  if (field_ != Field::kNone) {
    if (depth != field_depth_) {
      text_ += ' ';
      return;
    }
    const Field field = field_;
    field_ = Field::kNone;
    std::string text = field_markup_ ? HtmlToText(text_) : CollapseBlanks(text_);
    Store(field, CutText(text, limits_.max_text_bytes));
    return;
  }
  if (link_ != nullptr && IsOpds(name, "indirectAcquisition")) {
    if (indirect_skipped_ > 0) {
      --indirect_skipped_;
    } else if (!indirect_.empty()) {
      indirect_.pop_back();
    }
    return;
  }
  if (link_ != nullptr && depth == link_depth_) link_ = nullptr;
  if (author_ != nullptr && depth == author_depth_) author_ = nullptr;
  if (entry_ != nullptr && depth == entry_depth_) entry_ = nullptr;
}

void AtomReader::Store(Field field, std::string text) {
  if (!Charge(text.size())) return;
  switch (field) {
    case Field::kFeedId:
      feed_->id = std::move(text);
      break;
    case Field::kFeedTitle:
      feed_->title = std::move(text);
      break;
    case Field::kFeedUpdated:
      feed_->updated = std::move(text);
      break;
    case Field::kId:
      entry_->id = std::move(text);
      break;
    case Field::kTitle:
      entry_->title = std::move(text);
      break;
    case Field::kUpdated:
      entry_->updated = std::move(text);
      break;
    case Field::kPublished:
      if (entry_->issued.empty()) entry_->issued = std::move(text);
      break;
    case Field::kIssued:
      entry_->issued = std::move(text);
      break;
    case Field::kSummary:
      entry_->summary = std::move(text);
      break;
    case Field::kContent:
      entry_->content = std::move(text);
      break;
    case Field::kIdentifier:
      if (static_cast<int>(entry_->identifiers.size()) < limits_.max_links_per_entry) {
        entry_->identifiers.push_back(std::move(text));
      }
      break;
    case Field::kLanguage:
      entry_->language = std::move(text);
      break;
    case Field::kPublisher:
      entry_->publisher = std::move(text);
      break;
    case Field::kAuthorName:
      entry_->authors.back().name = std::move(text);
      break;
    case Field::kAuthorUri:
      entry_->authors.back().uri = resolver_.Resolve(text);
      break;
    case Field::kPrice:
      link_->price = std::move(text);
      break;
    case Field::kNone:
      break;
  }
}

struct ParserDeleter {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

bool AtomReader::Read(std::string_view body, std::string* error) {
  std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreateNS(nullptr, kSeparator));
  if (!parser) {
    *error = "cannot set up the XML parser";
    return false;
  }
  parser_ = parser.get();
  XML_SetUserData(parser_, this);
  XML_SetElementHandler(parser_, OnStart, OnEnd);
  XML_SetCharacterDataHandler(parser_, OnText);
  // Feeds never declare entities of their own; a document that does may be one that expands
  // a few bytes into gigabytes, and is refused before any expansion.
  XML_SetEntityDeclHandler(parser_, OnEntityDeclaration);

  XML_Status status = XML_STATUS_OK;
  size_t offset = 0;
  do {
    const size_t length = std::min(kChunkBytes, body.size() - offset);
    const bool last = offset + length == body.size();
    status = XML_Parse(parser_, body.data() + offset, static_cast<int>(length), last);
    offset += length;
  } while (status == XML_STATUS_OK && offset < body.size());

  if (declares_entities_) {
    *error = "not an OPDS feed (it declares XML entities)";
    return false;
  }
  if (root_refused_) {
    *error = "not an OPDS feed (the document is <" + root_name_ + ">, not an Atom feed)";
    return false;
  }
  if (status != XML_STATUS_OK && XML_GetErrorCode(parser_) != XML_ERROR_ABORTED) {
    if (!root_ok_) {
      *error = std::string("not an OPDS feed (XML error: ") +
               XML_ErrorString(XML_GetErrorCode(parser_)) + " at line " +
               std::to_string(XML_GetCurrentLineNumber(parser_)) + ")";
      return false;
    }
    feed_->truncated = true;  // cut off, or entities past the cap: keep what was read
  }
  if (!root_ok_) {
    *error = "not an OPDS feed (no Atom feed element)";
    return false;
  }
  return true;
}

}  // namespace

bool ParseAtomFeed(std::string_view body, const std::string& base_url, Feed* feed,
                   std::string* error, const Limits& limits) {
  *feed = Feed();
  feed->url = base_url;
  AtomReader reader(base_url, feed, limits);
  return reader.Read(body, error);
}

}  // namespace opds
}  // namespace norbel
