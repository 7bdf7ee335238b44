// What reading a document from outside (a shop answer, a file of the device) will cost in
// memory, told by one cheap pass over its bytes before anything is built. A few bytes of JSON
// or XML can each become a value, a book or a language of a hundred bytes or more, so the
// size of a document alone does not bound what it costs; these estimates do.
#ifndef VISTREL_STORE_SRC_DATA_MEMORY_BUDGET_H_
#define VISTREL_STORE_SRC_DATA_MEMORY_BUDGET_H_

#include <cstddef>
#include <cstdint>

namespace norbel {
namespace vistrel {

// The most that one document may cost, its own bytes included. A library of 20,000 purchased
// books with all their fields costs about 80 MiB by this measure.
constexpr int64_t kMaxDocumentCost = int64_t{112} << 20;

// An upper bound, in bytes, for the memory that the document, the JSON reader's tree of it and
// the records made from that tree take together: every array element counts as a record,
// every object member as a record's field, every byte of the text three times (the text, its
// copy in the tree and in a record). Strings and comments are skipped as the reader skips them.
int64_t JsonCost(const char* data, size_t size);

// The same for the language list's XML: every element counts as one entry of the list.
int64_t XmlCost(const char* data, size_t size);

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_MEMORY_BUDGET_H_
