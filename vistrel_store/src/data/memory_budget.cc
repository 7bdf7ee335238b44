#include "memory_budget.h"

#include <cstring>
#include <vector>

namespace norbel {
namespace vistrel {
namespace {

// Measured on x86-64 with the JSON library in use (a 32-bit device spends less): an array
// element costs a tree node and, as a list entry, a whole empty Book; an object member costs a
// tree node with its key and a field of a Book; a language element an entry of two strings,
// twice while the list grows.
constexpr int64_t kElementCost = 320;
constexpr int64_t kMemberCost = 192;
constexpr int64_t kLanguageCost = 160;
constexpr int64_t kCopiesOfText = 3;

// Containers deeper than this are beyond the JSON reader's own limit (it stops at 1000
// levels); commas down there are counted as array elements, the dearer kind.
constexpr size_t kTrackedDepth = 1024;

// The closing quote of a string whose text starts at `p` (or `end`): the next quote that an odd
// number of backslashes does not escape. Strings are most of an answer, so this runs at
// memchr's speed.
const char* StringEnd(const char* p, const char* end) {
  while (p < end) {
    const char* quote = static_cast<const char*>(std::memchr(p, '"', static_cast<size_t>(end - p)));
    if (!quote) return end;
    const char* before = quote;
    while (before > p && before[-1] == '\\') --before;
    if ((quote - before) % 2 == 0) return quote;
    p = quote + 1;
  }
  return end;
}

}  // namespace

int64_t JsonCost(const char* data, size_t size) {
  int64_t elements = 0;
  int64_t members = 0;
  // Which kind of container each open level is: true for an array.
  std::vector<bool> in_array;
  size_t depth = 0;
  const char* end = data + size;
  for (const char* p = data; p < end; ++p) {
    char c = *p;
    if (c == '"') {
      p = StringEnd(p + 1, end);
    } else if (c == '/' && p + 1 < end && p[1] == '*') {
      const char* close = p + 2;
      while (close + 1 < end && !(close[0] == '*' && close[1] == '/')) ++close;
      p = close + 1 < end ? close + 1 : end - 1;  // on the comment's last byte
    } else if (c == '/' && p + 1 < end && p[1] == '/') {
      while (p + 1 < end && p[1] != '\n' && p[1] != '\r') ++p;
    } else if (c == '[' || c == '{') {
      if (depth < kTrackedDepth) in_array.push_back(c == '[');
      ++depth;
      if (c == '[') ++elements;
    } else if (c == ']' || c == '}') {
      if (depth > 0 && depth <= kTrackedDepth) in_array.pop_back();
      if (depth > 0) --depth;
    } else if (c == ',') {
      // Inside an object a comma only separates members, which the colons count.
      if (depth > kTrackedDepth || (depth > 0 && in_array.back())) ++elements;
    } else if (c == ':') {
      ++members;
    }
  }
  return elements * kElementCost + members * kMemberCost +
         static_cast<int64_t>(size) * kCopiesOfText;
}

int64_t XmlCost(const char* data, size_t size) {
  int64_t elements = 0;
  for (const char* p = data; p < data + size; ++p) elements += *p == '<';
  return elements * kLanguageCost + static_cast<int64_t>(size) * kCopiesOfText;
}

}  // namespace vistrel
}  // namespace norbel
