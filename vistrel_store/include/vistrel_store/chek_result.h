#ifndef VISTREL_STORE_CHEK_RESULT_H_
#define VISTREL_STORE_CHEK_RESULT_H_

#include <json/value.h>

#include <cstdint>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// What "/checkOrder" tells of an order: its payment status and the e-books it delivers.
struct VISTREL_STORE_EXPORT ChekResult {
  // Replaces the books by the reply's "ebooks" and reads "paymentStatus".
  void FromJson(const Json::Value& json);

  int32_t payment_status_ = 0;
  std::vector<Book> ebooks_;
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_CHEK_RESULT_H_
