// Order::FromJson and ChekResult::FromJson on any JSON text: the order and order-check
// replies of the shop.
#include <json/value.h>

#include "fuzz_support.h"
#include "vistrel_store/chek_result.h"
#include "vistrel_store/order.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value json;
  if (!vistrel_fuzz::ParseJson(data, size, &json)) return 0;
  try {
    norbel::vistrel::Order order;
    order.FromJson(json);
  } catch (const Json::LogicError&) {
  }
  try {
    norbel::vistrel::ChekResult check;
    check.FromJson(json);
  } catch (const Json::LogicError&) {
  }
  return 0;
}
