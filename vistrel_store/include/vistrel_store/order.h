#ifndef VISTREL_STORE_ORDER_H_
#define VISTREL_STORE_ORDER_H_

#include <json/value.h>

#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/export.h"

namespace norbel {
namespace vistrel {

// An order as the shop answers "/prepareEbookOrder" and "/commitOrder".
struct VISTREL_STORE_EXPORT Order {
  // Replaces the positions by the reply's "positions" and keeps its whole "order" object.
  // Never fails on missing keys.
  void FromJson(const Json::Value& json);

  std::vector<Book> positions_;
  Json::Value order_;  // null until read; "orderID", "orderPaymentLink", ... live here
};

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_ORDER_H_
