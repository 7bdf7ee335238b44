// Cart::Load on any bytes in the cart file, then the cart's sums and its written form.
#include <json/value.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fuzz_support.h"
#include "vistrel_store/cart.h"

namespace {
std::string g_cart_file;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  g_cart_file = vistrel_fuzz::UsePrivateDevice() + "/mnt/ext1/system/config/vistrel_cart";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream out(g_cart_file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
      std::perror("writing the cart file");
      std::abort();
    }
  }
  norbel::vistrel::Cart cart;
  try {
    cart.Load();
  } catch (const Json::LogicError&) {
    // A member of the wrong kind inside the file: the documented conversion error.
    return 0;
  }
  cart.GetTotalPrice();
  cart.GetTotalPriceFormatted();
  cart.ToJson();
  for (unsigned int i = 0; i <= cart.GetSize(); ++i) cart.GetItem(i).ToJson();
  cart.IsContain("");
  return 0;
}
