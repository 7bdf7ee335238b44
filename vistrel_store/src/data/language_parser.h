// Reads the shop's language list: every element named "language" gives one entry from its
// "code" and "name" attributes; everything else is ignored.
#ifndef VISTREL_STORE_SRC_DATA_LANGUAGE_PARSER_H_
#define VISTREL_STORE_SRC_DATA_LANGUAGE_PARSER_H_

#include <string>
#include <vector>

#include "nbutils/expat_parser.h"
#include "vistrel_store/language.h"

class LanguageParser : public norbel::utilities::IParser {
 public:
  ~LanguageParser() override = default;

  void reset() override {}
  void startElement(const std::string& name,
                    const boost::unordered_map<std::string, std::string>& attributes) override;
  void endElement(const std::string& /*name*/) override {}
  void data(const std::string& /*text*/) override {}

  const std::vector<norbel::vistrel::Language>& languages() const { return languages_; }
  std::vector<norbel::vistrel::Language> TakeLanguages() { return std::move(languages_); }

 private:
  std::vector<norbel::vistrel::Language> languages_;
};

#endif  // VISTREL_STORE_SRC_DATA_LANGUAGE_PARSER_H_
