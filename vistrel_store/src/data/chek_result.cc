#include "vistrel_store/chek_result.h"

#include "book_list.h"

namespace norbel {
namespace vistrel {

void ChekResult::FromJson(const Json::Value& json) {
  ebooks_.clear();
  payment_status_ = json["paymentStatus"].asInt();
  AppendBooks(json["ebooks"], &ebooks_);
}

}  // namespace vistrel
}  // namespace norbel
