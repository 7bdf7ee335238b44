// The shop screen's catalogue step: which books the buyer may put into the cart.
#ifndef EXAMPLES_SHOP_APP_CATALOGUE_H_
#define EXAMPLES_SHOP_APP_CATALOGUE_H_

#include <string>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/store_manager.h"

namespace shop_app {

// The books the buyer chose, as records the cart takes, looked up in the shop's OPDS
// catalogue (store->config().clientOPDSCatalogUrl): title, author, formats, price and
// thumbnail come from the catalogue entry whose EAN was chosen. The walk follows sections and
// next pages, each address once, and stops after a few dozen feeds. A chosen EAN that the
// catalogue does not list still goes into the cart with its EAN alone; the shop drops it at
// checkout if it does not sell it.
std::vector<norbel::vistrel::Book> LoadCatalogue(norbel::vistrel::StoreManager* store,
                                                 const std::vector<std::string>& chosen);

}  // namespace shop_app

#endif  // EXAMPLES_SHOP_APP_CATALOGUE_H_
