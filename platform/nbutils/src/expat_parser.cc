#include "nbutils/expat_parser.h"

#include <expat.h>

#include <cstdint>

namespace norbel {
namespace utilities {

struct ExpatParser::Impl {
  XML_Parser parser = nullptr;
};

namespace {

void OnStart(void* user, const XML_Char* name, const XML_Char** attributes) {
  boost::unordered_map<std::string, std::string> map;
  for (const XML_Char** a = attributes; a && a[0] && a[1]; a += 2) map.emplace(a[0], a[1]);
  static_cast<IParser*>(user)->startElement(name, map);
}

void OnEnd(void* user, const XML_Char* name) { static_cast<IParser*>(user)->endElement(name); }

void OnData(void* user, const XML_Char* text, int length) {
  static_cast<IParser*>(user)->data(std::string(text, static_cast<size_t>(length)));
}

}  // namespace

ExpatParser::ExpatParser(IParser* handler) : handler_(handler), impl_(new Impl) {}

ExpatParser::~ExpatParser() {
  if (impl_->parser) XML_ParserFree(impl_->parser);
  delete impl_;
}

bool ExpatParser::init(const char* encoding) {
  if (impl_->parser) XML_ParserFree(impl_->parser);
  // expat's defences against entity expansion attacks stay at their defaults.
  impl_->parser = XML_ParserCreate(encoding);
  if (!impl_->parser) return false;
  if (handler_) {
    XML_SetUserData(impl_->parser, handler_);
    XML_SetElementHandler(impl_->parser, OnStart, OnEnd);
    XML_SetCharacterDataHandler(impl_->parser, OnData);
    handler_->reset();
  }
  return true;
}

bool ExpatParser::parse(const char* buffer, unsigned int length) {
  if (!impl_->parser && !init(nullptr)) return false;
  if (length > static_cast<unsigned int>(INT32_MAX)) return false;
  return XML_Parse(impl_->parser, buffer, static_cast<int>(length), 1) == XML_STATUS_OK;
}

}  // namespace utilities
}  // namespace norbel
