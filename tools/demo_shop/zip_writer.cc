#include "zip_writer.h"

#include <zlib.h>

namespace vistrel_demo {

namespace {

// A fixed time stamp (2015-01-05 13:07:08) keeps the books byte-identical between runs.
constexpr uint16_t kDosTime = (13 << 11) | (7 << 5) | (8 / 2);
constexpr uint16_t kDosDate = ((2015 - 1980) << 9) | (1 << 5) | 5;

void Put16(std::string& out, uint16_t value) {
  out.push_back(static_cast<char>(value & 0xff));
  out.push_back(static_cast<char>(value >> 8));
}

void Put32(std::string& out, uint32_t value) {
  Put16(out, static_cast<uint16_t>(value & 0xffff));
  Put16(out, static_cast<uint16_t>(value >> 16));
}

// The part that local and central headers share, from "version needed" to the name length.
void PutCommon(std::string& out, uint32_t crc, uint32_t size, size_t name_size) {
  Put16(out, 10);  // version needed: 1.0, stored entries
  Put16(out, 0);   // flags
  Put16(out, 0);   // method: stored
  Put16(out, kDosTime);
  Put16(out, kDosDate);
  Put32(out, crc);
  Put32(out, size);  // compressed size
  Put32(out, size);  // uncompressed size
  Put16(out, static_cast<uint16_t>(name_size));
  Put16(out, 0);  // extra field length
}

}  // namespace

void ZipWriter::Add(const std::string& name, const std::string& content) {
  Entry entry;
  entry.name = name;
  entry.crc = static_cast<uint32_t>(
      crc32(0L, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size())));
  entry.size = static_cast<uint32_t>(content.size());
  entry.offset = static_cast<uint32_t>(data_.size());
  Put32(data_, 0x04034b50);
  PutCommon(data_, entry.crc, entry.size, name.size());
  data_ += name;
  data_ += content;
  entries_.push_back(entry);
}

std::string ZipWriter::Finish() const {
  std::string out = data_;
  const uint32_t directory_offset = static_cast<uint32_t>(out.size());
  for (const Entry& entry : entries_) {
    Put32(out, 0x02014b50);
    Put16(out, 20);  // made by: MS-DOS, version 2.0
    PutCommon(out, entry.crc, entry.size, entry.name.size());
    Put16(out, 0);  // comment length
    Put16(out, 0);  // disk number
    Put16(out, 0);  // internal attributes
    Put32(out, 0);  // external attributes
    Put32(out, entry.offset);
    out += entry.name;
  }
  const uint32_t directory_size = static_cast<uint32_t>(out.size()) - directory_offset;
  Put32(out, 0x06054b50);
  Put16(out, 0);  // this disk
  Put16(out, 0);  // disk with the directory
  Put16(out, static_cast<uint16_t>(entries_.size()));
  Put16(out, static_cast<uint16_t>(entries_.size()));
  Put32(out, directory_size);
  Put32(out, directory_offset);
  Put16(out, 0);  // comment length
  return out;
}

}  // namespace vistrel_demo
