// Addresses, parsed by libcurl's URL API.
#ifndef NBUTILS_URL_H_
#define NBUTILS_URL_H_

#include <map>
#include <string>

namespace norbel {
namespace utilities {

class Url {
 public:
  explicit Url(const std::string& url);

  // False when the text is not an absolute address that libcurl accepts.
  bool IsValid() const { return valid_; }
  const std::string& scheme() const { return scheme_; }
  const std::string& host() const { return host_; }
  const std::string& path() const { return path_; }
  // The query without "?", still percent-encoded; "" when there is none.
  const std::string& query() const { return query_; }

  // Resolves `location` (absolute or relative) against this address; "" when it cannot.
  std::string Resolve(const std::string& location) const;

  // Splits a query into names and values, percent-decoded ("+" stands for a blank). When a
  // name repeats, its first value is kept. A part that does not decode (curl refuses encoded
  // control characters) is left out; a part without "=" has the value "".
  static std::map<std::string, std::string> ParseQuery(const std::string& query);

 private:
  std::string url_;
  bool valid_ = false;
  std::string scheme_;
  std::string host_;
  std::string path_;
  std::string query_;
};

}  // namespace utilities
}  // namespace norbel

#endif  // NBUTILS_URL_H_
