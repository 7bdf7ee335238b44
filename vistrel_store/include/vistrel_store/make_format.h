#ifndef VISTREL_STORE_MAKE_FORMAT_H_
#define VISTREL_STORE_MAKE_FORMAT_H_

#include <boost/ptr_container/ptr_vector.hpp>
#include <sstream>

#include "opdsmodel/indirect_acquisition.h"
#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// Writes the formats of an OPDS entry's acquisitions to `out` as upper-case extensions
// separated by commas ("EPUB,PDF"), depth first through nested acquisitions. An Adobe ticket
// (.acsm) writes nothing but sets `has_adobe_ticket`, which is never cleared here.
VISTREL_STORE_EXPORT void MakeFormat(
    std::stringstream& out, bool& has_adobe_ticket,
    const boost::ptr_vector<OPDS::IndirectAcquisition>& acquisitions);

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_MAKE_FORMAT_H_
