// An acquisition link of an OPDS entry: a MIME type and the acquisitions nested in it
// (an Adobe ticket that leads to an EPUB, say).
#ifndef OPDSMODEL_INDIRECT_ACQUISITION_H_
#define OPDSMODEL_INDIRECT_ACQUISITION_H_

#include <boost/ptr_container/ptr_vector.hpp>
#include <string>

namespace OPDS {

class IndirectAcquisition {
 public:
  IndirectAcquisition() = default;
  explicit IndirectAcquisition(const std::string& mime_type) : mime_type_(mime_type) {}

  const std::string& GetMimeType() const { return mime_type_; }
  void SetMimeType(const std::string& mime_type) { mime_type_ = mime_type; }

  const boost::ptr_vector<IndirectAcquisition>& GetAcquisitions() const { return acquisitions_; }
  boost::ptr_vector<IndirectAcquisition>& GetAcquisitions() { return acquisitions_; }

 private:
  std::string mime_type_;
  boost::ptr_vector<IndirectAcquisition> acquisitions_;
};

}  // namespace OPDS

#endif  // OPDSMODEL_INDIRECT_ACQUISITION_H_
