// A thin wrapper over expat that feeds a handler.
#ifndef NBUTILS_EXPAT_PARSER_H_
#define NBUTILS_EXPAT_PARSER_H_

#include <boost/unordered_map.hpp>
#include <string>

namespace norbel {
namespace utilities {

// What the parser tells while it reads a document.
class IParser {
 public:
  virtual ~IParser() = default;
  virtual void reset() = 0;
  virtual void startElement(const std::string& name,
                            const boost::unordered_map<std::string, std::string>& attributes) = 0;
  virtual void endElement(const std::string& name) = 0;
  virtual void data(const std::string& text) = 0;
};

class ExpatParser {
 public:
  // `handler` is not owned and must outlive the parser.
  explicit ExpatParser(IParser* handler);
  ~ExpatParser();
  ExpatParser(const ExpatParser&) = delete;
  ExpatParser& operator=(const ExpatParser&) = delete;

  // Starts a new document in `encoding` (null: as declared by the document). Returns false
  // when expat cannot be set up.
  bool init(const char* encoding);
  // Parses a whole document. Returns false on an XML error (what was read stays reported).
  bool parse(const char* buffer, unsigned int length);

 private:
  struct Impl;
  IParser* handler_;
  Impl* impl_;
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_EXPAT_PARSER_H_
