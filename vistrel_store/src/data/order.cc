#include "vistrel_store/order.h"

#include "book_list.h"

namespace norbel {
namespace vistrel {

void Order::FromJson(const Json::Value& json) {
  positions_.clear();
  order_ = json["order"];
  AppendBooks(json["positions"], &positions_);
}

}  // namespace vistrel
}  // namespace norbel
