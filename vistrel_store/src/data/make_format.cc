#include "vistrel_store/make_format.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "panelkit/panelkit.h"
#include "vistrel_store/book_file.h"

namespace norbel {
namespace vistrel {

namespace {

// Writes one format name in the device UI's upper case, cut to the buffer of 64 bytes.
void WriteFormat(std::stringstream& out, const std::string& ext) {
  if (!out.str().empty()) out << ",";
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "%s", ext.c_str());
  char* upper = utf_toupper_ext(buffer);
  if (upper != nullptr && upper[0] != '\0') {
    std::strncpy(buffer, upper, sizeof(buffer) - 1);
    buffer[sizeof(buffer) - 1] = '\0';
  }
  std::free(upper);
  out << buffer;
}

}  // namespace

void MakeFormat(std::stringstream& out, bool& has_adobe_ticket,
                const boost::ptr_vector<OPDS::IndirectAcquisition>& acquisitions) {
  for (const OPDS::IndirectAcquisition& acquisition : acquisitions) {
    std::string ext = ExtentionByMime(acquisition.GetMimeType());
    if (ext == "acsm") {
      // A ticket is fulfilled into one of the formats nested in it; it is not a format itself.
      has_adobe_ticket = true;
    } else if (!ext.empty()) {
      WriteFormat(out, ext);
    }
    if (!acquisition.GetAcquisitions().empty()) {
      MakeFormat(out, has_adobe_ticket, acquisition.GetAcquisitions());
    }
  }
}

}  // namespace vistrel
}  // namespace norbel
