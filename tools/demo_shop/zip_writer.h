// Writes a zip archive in memory with stored (uncompressed) entries. Enough for EPUB
// containers, whose first entry must be an uncompressed "mimetype".
#ifndef TOOLS_DEMO_SHOP_ZIP_WRITER_H_
#define TOOLS_DEMO_SHOP_ZIP_WRITER_H_

#include <cstdint>
#include <string>
#include <vector>

namespace vistrel_demo {

class ZipWriter {
 public:
  ZipWriter() = default;

  // Appends an entry; entries keep the order in which they were added.
  void Add(const std::string& name, const std::string& content);
  // The whole archive: local entries, central directory, end record.
  std::string Finish() const;

 private:
  struct Entry {
    std::string name;
    uint32_t crc;
    uint32_t size;
    uint32_t offset;  // of the local header
  };

  std::string data_;  // local headers and contents so far
  std::vector<Entry> entries_;
};

}  // namespace vistrel_demo

#endif  // TOOLS_DEMO_SHOP_ZIP_WRITER_H_
