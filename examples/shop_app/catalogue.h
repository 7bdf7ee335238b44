// The shop screen's catalogue step: which books the buyer may put into the cart.
#ifndef EXAMPLES_SHOP_APP_CATALOGUE_H_
#define EXAMPLES_SHOP_APP_CATALOGUE_H_

#include <string>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/store_manager.h"

namespace shop_app {

// The books the buyer chose, as records the cart takes. `chosen` holds the EANs picked on the
// catalogue screen. A book's record carries at least its Ean; the shop's cart fills in title,
// author and price at checkout. A catalogue reader would look the books up in the catalogue
// that store->config().clientOPDSCatalogUrl names; this one takes the EANs as they are.
std::vector<norbel::vistrel::Book> LoadCatalogue(norbel::vistrel::StoreManager* store,
                                                 const std::vector<std::string>& chosen);

}  // namespace shop_app

#endif  // EXAMPLES_SHOP_APP_CATALOGUE_H_
