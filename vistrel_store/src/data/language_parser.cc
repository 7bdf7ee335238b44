#include "language_parser.h"

#include <map>

using norbel::vistrel::Language;

void LanguageParser::startElement(
    const std::string& name, const boost::unordered_map<std::string, std::string>& attributes) {
  if (name != "language") return;
  static const std::map<std::string, std::string Language::*> kAttributes = {
      {"code", &Language::code},
      {"name", &Language::name},
  };
  Language language;
  for (const auto& [attribute, member] : kAttributes) {
    auto it = attributes.find(attribute);
    if (it != attributes.end()) language.*member = it->second;
  }
  languages_.push_back(std::move(language));
}
