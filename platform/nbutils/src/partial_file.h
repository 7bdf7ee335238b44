// The file a download grows in before it is renamed into place, kept across failed attempts and
// restarts of the process so that the next attempt can ask only for the rest.
//
// Beside the data (".<name>.part") lives a small record (".<name>.part.info") of what the data
// is: the link, the file name, the server's validator (a strong ETag, else Last-Modified) and
// the whole size. The record is written before the first byte of the body, so data without a
// matching record is never continued. Both names are fixed per file name so that a later
// attempt finds them; neither is trusted: the data is continued only when it is a regular file
// of this user with one link, opened without following a link, and the record is read with
// the same care and a size bound. Anything else found at these names is removed and the data
// file made anew with O_CREAT|O_EXCL.
#ifndef NBUTILS_SRC_PARTIAL_FILE_H_
#define NBUTILS_SRC_PARTIAL_FILE_H_

#include <cstdint>
#include <functional>
#include <string>

namespace norbel {
namespace utilities {

// What the record says about the data.
struct PartialInfo {
  std::string url;
  std::string name;
  std::string validator;  // sent as If-Range; never empty in a usable record
  int64_t total = 0;      // the whole size; 0 when the server did not say
};

class PartialFile {
 public:
  // For the file `name` in the host folder `folder`.
  PartialFile(const std::string& folder, const std::string& name);
  ~PartialFile();
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  // Opens the data for `url`: continues what an earlier attempt left when the record matches
  // the link and the name, else starts from an empty file created exclusively. False when no
  // file can be made or another download holds it (`error` says why).
  bool Open(const std::string& url, std::string* error);

  int fd() const { return fd_; }
  // Bytes already there to continue from (0 for a new file) and what the record says.
  int64_t resume_from() const { return resume_from_; }
  const PartialInfo& info() const { return info_; }

  // Empties the data and forgets the record (the server sends the whole file again).
  bool Restart();
  // Keeps `info` as the record, durably, before the body is written. Without a validator the
  // data cannot be continued later and the record is removed instead.
  bool SaveInfo(const PartialInfo& info);
  // Flushes the data and renames it to `target` (host path), then drops the record and
  // flushes the folder.
  bool Commit(const std::string& target, std::string* error);
  // Keeps data and record for a later attempt when the record allows one, else removes both.
  // True when kept.
  bool Keep();
  // Removes data and record.
  void Discard();

  // Names of the data and the record beside a file called `name`.
  static std::string DataName(const std::string& name);
  static std::string InfoName(const std::string& name);

  // Removes, in the host folder `folder`, what downloads left behind: data and records of files
  // for which `wanted` says false, or whose data has not changed for `max_age_seconds`, and
  // records without data. Files it did not make (other names) and data that a download holds
  // locked are left alone. Returns the number of entries removed.
  static int RemoveStale(const std::string& folder,
                         const std::function<bool(const std::string&)>& wanted,
                         int64_t max_age_seconds);

 private:
  bool OpenExisting(const std::string& url);
  bool CreateFresh(std::string* error);

  std::string folder_;
  std::string name_;
  std::string data_path_;
  std::string info_path_;
  int fd_ = -1;
  int64_t resume_from_ = 0;
  PartialInfo info_;
  bool has_info_ = false;
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_SRC_PARTIAL_FILE_H_
