#include "book_files.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "zip_writer.h"

namespace vistrel_demo {

std::string XmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

namespace {

// The documents read best laid out as they come out.
// clang-format off
const char kXmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

std::string ContainerXml() {
  return std::string(kXmlHead) +
         "<container version=\"1.0\" "
         "xmlns=\"urn:oasis:names:tc:opendocument:xmlns:container\">\n"
         "  <rootfiles>\n"
         "    <rootfile full-path=\"OEBPS/content.opf\" "
         "media-type=\"application/oebps-package+xml\"/>\n"
         "  </rootfiles>\n"
         "</container>\n";
}

std::string PackageOpf(const CatalogBook& book) {
  return std::string(kXmlHead) +
         "<package xmlns=\"http://www.idpf.org/2007/opf\" version=\"3.0\" "
         "unique-identifier=\"bookid\">\n"
         "  <metadata xmlns:dc=\"http://purl.org/dc/elements/1.1/\">\n"
         "    <dc:identifier id=\"bookid\">urn:isbn:" + book.ean + "</dc:identifier>\n"
         "    <dc:title>" + XmlEscape(book.title) + "</dc:title>\n"
         "    <dc:creator>" + XmlEscape(book.author) + "</dc:creator>\n"
         "    <dc:language>" + book.language + "</dc:language>\n"
         "    <dc:publisher>Vistrel Demo Shop</dc:publisher>\n"
         "    <meta property=\"dcterms:modified\">2015-01-05T13:07:08Z</meta>\n"
         "  </metadata>\n"
         "  <manifest>\n"
         "    <item id=\"nav\" href=\"nav.xhtml\" media-type=\"application/xhtml+xml\" "
         "properties=\"nav\"/>\n"
         "    <item id=\"ncx\" href=\"toc.ncx\" media-type=\"application/x-dtbncx+xml\"/>\n"
         "    <item id=\"chapter1\" href=\"chapter1.xhtml\" "
         "media-type=\"application/xhtml+xml\"/>\n"
         "  </manifest>\n"
         "  <spine toc=\"ncx\">\n"
         "    <itemref idref=\"chapter1\"/>\n"
         "  </spine>\n"
         "</package>\n";
}

std::string XhtmlPage(const CatalogBook& book, const std::string& body) {
  return std::string(kXmlHead) +
         "<!DOCTYPE html>\n"
         "<html xmlns=\"http://www.w3.org/1999/xhtml\" "
         "xmlns:epub=\"http://www.idpf.org/2007/ops\" xml:lang=\"" + book.language + "\">\n"
         "<head><title>" + XmlEscape(book.title) + "</title></head>\n"
         "<body>\n" + body + "</body>\n</html>\n";
}

std::string NavXhtml(const CatalogBook& book) {
  return XhtmlPage(book,
                   "<nav epub:type=\"toc\" id=\"toc\"><h1>Contents</h1>\n"
                   "<ol><li><a href=\"chapter1.xhtml\">" + XmlEscape(book.title) +
                       "</a></li></ol>\n</nav>\n");
}

std::string TocNcx(const CatalogBook& book) {
  return std::string(kXmlHead) +
         "<ncx xmlns=\"http://www.daisy.org/z3986/2005/ncx/\" version=\"2005-1\">\n"
         "  <head><meta name=\"dtb:uid\" content=\"urn:isbn:" + book.ean + "\"/></head>\n"
         "  <docTitle><text>" + XmlEscape(book.title) + "</text></docTitle>\n"
         "  <navMap>\n"
         "    <navPoint id=\"chapter1\" playOrder=\"1\">\n"
         "      <navLabel><text>" + XmlEscape(book.title) + "</text></navLabel>\n"
         "      <content src=\"chapter1.xhtml\"/>\n"
         "    </navPoint>\n"
         "  </navMap>\n"
         "</ncx>\n";
}

std::string ChapterXhtml(const CatalogBook& book) {
  std::string body = "<h1>" + XmlEscape(book.title) + "</h1>\n<p><em>" +
                     XmlEscape(book.author) + "</em></p>\n";
  for (const std::string& paragraph : book.paragraphs) {
    body += "<p>" + XmlEscape(paragraph) + "</p>\n";
  }
  return XhtmlPage(book, body);
}

// clang-format on

// A PDF string literal in WinAnsi: Latin-1 letters as octal escapes, other non-ASCII as "?".
std::string PdfString(const std::string& utf8) {
  std::string out = "(";
  for (size_t i = 0; i < utf8.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(utf8[i]);
    if (c == '(' || c == ')' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if ((c == 0xc2 || c == 0xc3) && i + 1 < utf8.size()) {
      unsigned code = ((c & 0x1f) << 6) | (static_cast<unsigned char>(utf8[++i]) & 0x3f);
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\%03o", code);
      out += escaped;
    } else {
      while (i + 1 < utf8.size() && (static_cast<unsigned char>(utf8[i + 1]) & 0xc0) == 0x80) ++i;
      out += '?';
    }
  }
  return out + ")";
}

std::vector<std::string> WrapWords(const std::string& text, size_t width) {
  std::vector<std::string> lines;
  std::string line;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string::npos) end = text.size();
    std::string word = text.substr(start, end - start);
    if (!line.empty() && line.size() + 1 + word.size() > width) {
      lines.push_back(line);
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
    start = end + 1;
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

// One page's text as a content stream: a heading on the first page, then 11-point lines.
std::string PageContent(const std::vector<std::string>& lines, const std::string& heading) {
  std::string out = "BT\n";
  int y = 545;
  if (!heading.empty()) {
    out += "/F1 16 Tf 50 " + std::to_string(y) + " Td " + PdfString(heading) + " Tj\n";
    out += "/F1 11 Tf 0 -28 Td\n";
  } else {
    out += "/F1 11 Tf 50 " + std::to_string(y) + " Td\n";
  }
  out += "14 TL\n";
  for (const std::string& line : lines) out += PdfString(line) + " '\n";
  return out + "ET\n";
}

}  // namespace

std::string MakeEpub(const CatalogBook& book) {
  ZipWriter zip;
  zip.Add("mimetype", "application/epub+zip");
  zip.Add("META-INF/container.xml", ContainerXml());
  zip.Add("OEBPS/content.opf", PackageOpf(book));
  zip.Add("OEBPS/nav.xhtml", NavXhtml(book));
  zip.Add("OEBPS/toc.ncx", TocNcx(book));
  zip.Add("OEBPS/chapter1.xhtml", ChapterXhtml(book));
  return zip.Finish();
}

std::string MakePdf(const CatalogBook& book) {
  // Lay the text out: author line, blank, paragraphs separated by blank lines.
  std::vector<std::string> lines = {book.author, ""};
  for (const std::string& paragraph : book.paragraphs) {
    for (std::string& line : WrapWords(paragraph, 62)) lines.push_back(std::move(line));
    lines.push_back("");
  }
  const size_t kLinesPerPage = 34;
  std::vector<std::string> pages;
  for (size_t first = 0; first < lines.size(); first += kLinesPerPage) {
    std::vector<std::string> page_lines(
        lines.begin() + first, lines.begin() + std::min(lines.size(), first + kLinesPerPage));
    pages.push_back(PageContent(page_lines, first == 0 ? book.title : ""));
  }

  // Objects: 1 catalog, 2 page tree, 3 font, 4 info, then a page and its content per page.
  std::vector<std::string> objects;
  std::string kids;
  for (size_t i = 0; i < pages.size(); ++i) kids += std::to_string(5 + 2 * i) + " 0 R ";
  objects.push_back("<< /Type /Catalog /Pages 2 0 R >>");
  objects.push_back("<< /Type /Pages /Kids [ " + kids + "] /Count " + std::to_string(pages.size()) +
                    " >>");
  objects.push_back(
      "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>");
  objects.push_back("<< /Title " + PdfString(book.title) + " /Author " + PdfString(book.author) +
                    " /Producer (Vistrel Demo Shop) >>");
  for (size_t i = 0; i < pages.size(); ++i) {
    objects.push_back(
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 420 595] "
        "/Resources << /Font << /F1 3 0 R >> >> /Contents " +
        std::to_string(6 + 2 * i) + " 0 R >>");
    objects.push_back("<< /Length " + std::to_string(pages[i].size()) + " >>\nstream\n" + pages[i] +
                      "endstream");
  }

  std::string out = "%PDF-1.4\n%\xe2\xe3\xcf\xd3\n";
  std::vector<size_t> offsets;
  for (size_t i = 0; i < objects.size(); ++i) {
    offsets.push_back(out.size());
    out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const size_t xref = out.size();
  out += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (size_t offset : offsets) {
    char entry[24];
    std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", offset);
    out += entry;
  }
  out += "trailer\n<< /Size " + std::to_string(objects.size() + 1) +
         " /Root 1 0 R /Info 4 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  return out;
}

std::string MakeBookFile(const CatalogBook& book) {
  return book.format == "PDF" ? MakePdf(book) : MakeEpub(book);
}

std::string MakeStandbyBmp(int width, int height) {
  const uint32_t row = (static_cast<uint32_t>(width) * 3 + 3) & ~3u;
  const uint32_t pixels = row * static_cast<uint32_t>(height);
  std::string out;
  auto put16 = [&out](uint32_t v) {
    out.push_back(static_cast<char>(v & 0xff));
    out.push_back(static_cast<char>((v >> 8) & 0xff));
  };
  auto put32 = [&put16](uint32_t v) {
    put16(v & 0xffff);
    put16(v >> 16);
  };
  out += "BM";
  put32(54 + pixels);
  put32(0);
  put32(54);
  put32(40);
  put32(static_cast<uint32_t>(width));
  put32(static_cast<uint32_t>(height));  // positive: bottom row first
  put16(1);
  put16(24);
  put32(0);  // no compression
  put32(pixels);
  put32(2835);  // 72 dpi
  put32(2835);
  put32(0);
  put32(0);
  for (int y = height - 1; y >= 0; --y) {
    std::string line(row, '\0');
    for (int x = 0; x < width; ++x) {
      const bool frame = x < 4 || y < 4 || x >= width - 4 || y >= height - 4;
      const bool stripe = ((x + y) / 10) % 2 == 0;
      const unsigned char grey = frame ? 0x00 : stripe ? 0x40 : 0xe0;
      const size_t at = static_cast<size_t>(x) * 3;
      line[at] = static_cast<char>(grey);                            // blue
      line[at + 1] = static_cast<char>(grey);                        // green
      line[at + 2] = static_cast<char>(frame ? grey : grey ^ 0x20);  // red
    }
    out += line;
  }
  return out;
}

}  // namespace vistrel_demo
