#include "commands.h"

namespace vistrel_cli {

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"init", "fetch the shop configuration and show the device's state",
       "usage: vistrel init\n\nFetches the shop configuration from the configuration server "
       "(also when a cached one\nis recent), installs the standby picture, and shows the "
       "shop, session, cart and purchases.\n",
       RunInit},
      {"register", "create an account and log in",
       "usage: vistrel register EMAIL PASSWORD\n\nRegisters a new account with the shop; the "
       "new session is kept on the device.\n",
       RunRegister},
      {"login", "log in",
       "usage: vistrel login EMAIL PASSWORD\n\nLogs in; the session and the credentials are "
       "kept on the device.\n",
       RunLogin},
      {"logout", "log out on the device",
       "usage: vistrel logout\n\nEmpties the cart and forgets the session and the purchases "
       "in memory. The shop\nis not told, and the device configuration keeps the stored "
       "session, so the next\ncommand starts logged in again (log in as someone else to "
       "replace it).\n",
       RunLogout},
      {"languages", "list the shop's catalogue languages", "usage: vistrel languages\n",
       RunLanguages},
      {"catalog", "list the shop's catalogue with each book's status",
       "usage: vistrel catalog\n\nReads the catalogue that the shop configuration names "
       "(clientOPDSCatalogUrl;\nthe demo shop publishes a JSON list there).\n",
       RunCatalog},
      {"cart", "add, remove or list books in the cart",
       "usage: vistrel cart add EAN [--title T] [--author A] [--format F] [--price EUR]\n"
       "       vistrel cart remove EAN\n"
       "       vistrel cart list\n\n"
       "cart add looks the EAN up in the shop's catalogue; the options supply or override\n"
       "the book's data (with --title a book outside the catalogue can be added; the shop\n"
       "then drops it at checkout).\n",
       RunCart},
      {"checkout", "move the cart to the shop",
       "usage: vistrel checkout\n\nPushes the cart to the shop and takes the shop's cart; fails "
       "when the shop dropped\na book.\n",
       RunCheckout},
      {"pay", "order the shop's cart and pay it",
       "usage: vistrel pay [--browser chromium|http] [--headless]\n\nChecks the cart out (again: "
       "the shop's cart id lives only as long as the\nprocess), prepares and commits the order, "
       "pays it in the browser, and\nwaits until the shop has delivered every book (at least 5 "
       "seconds). The browser:\nchromium (a window, or --headless) or http (follows redirects "
       "only); default\na Chromium window when there is Chromium and a display, else http.\n",
       RunPay},
      {"purchased", "list the purchased books", "usage: vistrel purchased\n", RunPurchased},
      {"download", "download purchased books",
       "usage: vistrel download EAN... | --all\n\nDownloads the books one after the other "
       "into the device's download folder,\nwith a progress bar on a terminal.\n",
       RunDownload},
      {"status", "show a book's status",
       "usage: vistrel status EAN...\n\nunknown, in cart, purchased, downloading (with "
       "percentage) or downloaded (with\nits path). An argument may be a path or address "
       "ending in the EAN.\n",
       RunStatus},
      {"demo", "run a whole purchase against the embedded demo shop",
       "usage: vistrel [--device-root DIR] demo [--file-chunk-delay MS] [--link-delay MS]\n\n"
       "Starts the demo shop on a free loopback port, prepares a fresh device (a temporary\n"
       "folder unless --device-root is given), and buys and downloads three books through\n"
       "the store library: configuration and standby picture, registration, languages,\n"
       "cart, checkout, payment in the emulated browser, delivery, downloads.\n",
       RunDemo},
  };
  return commands;
}

}  // namespace vistrel_cli
