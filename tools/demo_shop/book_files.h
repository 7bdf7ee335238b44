// The demo shop's files, made in memory at start-up: valid EPUB and PDF books from the
// catalogue's texts, and the standby picture.
#ifndef TOOLS_DEMO_SHOP_BOOK_FILES_H_
#define TOOLS_DEMO_SHOP_BOOK_FILES_H_

#include <string>

#include "demo_catalog.h"

namespace vistrel_demo {

// An EPUB 3 container (with an NCX for older readers): "mimetype" stored first, then
// META-INF/container.xml, the package document, the navigation documents and one chapter.
// Text with the five XML special characters escaped, for element content and attributes.
std::string XmlEscape(const std::string& text);

std::string MakeEpub(const CatalogBook& book);
// A PDF 1.4 document in Helvetica, one or more A5 pages, with a correct cross-reference table.
std::string MakePdf(const CatalogBook& book);
// The file for the book's format ("PDF" gives a PDF, anything else an EPUB).
std::string MakeBookFile(const CatalogBook& book);
// An uncompressed 24-bit BMP with a pattern of stripes inside a frame.
std::string MakeStandbyBmp(int width, int height);

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_BOOK_FILES_H_
