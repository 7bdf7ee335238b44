#include "commands.h"

namespace vistrel_cli {

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"init", "start the library and show the device's state",
       "usage: vistrel init [--refresh]\n\nStarts the library as the shop application does: "
       "the shop configuration (fetched\nfrom the configuration server when the cached one is "
       "30 minutes old or missing,\nwith the standby picture), languages, session, cart and "
       "purchases, and shows them.\nThe session is renewed with the stored credentials.\n\n"
       "  --refresh  fetch the configuration now, also when the cached one is recent (after\n"
       "             changing --switchboard-url)\n",
       RunInit},
      {"register", "create an account and log in",
       "usage: vistrel register EMAIL [--password-stdin]\n\nRegisters a new account with the "
       "shop; the new session is kept on the device.\nThe password is asked for twice on the "
       "terminal (not shown), or read as one line\nfrom stdin with --password-stdin. A "
       "password after EMAIL still works, with a\nwarning: others can see it.\n",
       RunRegister},
      {"login", "log in",
       "usage: vistrel login EMAIL [--password-stdin]\n\nLogs in; the session and the "
       "credentials are kept on the device. The password\nis asked for on the terminal (not "
       "shown), or read as one line from stdin with\n--password-stdin. A password after EMAIL "
       "still works, with a warning.\n",
       RunLogin},
      {"logout", "log out on the device",
       "usage: vistrel logout [--forget]\n\nEmpties the cart and forgets the session and the "
       "purchases in memory. The shop\nis not told, and the device configuration keeps the "
       "stored session and password,\nso the next command starts logged in again.\n\n"
       "  --forget  also remove the stored session, e-mail address and password from the\n"
       "            device\n",
       RunLogout},
      {"languages", "list the shop's catalogue languages", "usage: vistrel languages\n",
       RunLanguages},
      {"catalog", "browse the shop's OPDS catalogue with each book's status",
       "usage: vistrel catalog [N...] [--feed URL]\n"
       "       vistrel catalog --all [--feed URL] [--max-feeds N]\n"
       "       vistrel catalog --search TEXT [--feed URL]\n\n"
       "Reads the OPDS catalogue (1.2 Atom or 2.0 JSON) that the shop configuration names\n"
       "(clientOPDSCatalogUrl), or the feed at URL. Lists its numbered navigation entries\n"
       "and its books: EAN (the entry's identifier when it has no ISBN), price, author,\n"
       "title, formats and status. N opens navigation entry N (several numbers go deeper).\n"
       "--all walks every navigation entry and page, each address once (at most N feeds,\n"
       "default 1000, 50000 books and 10 minutes) with a count on stderr; --search uses\n"
       "the catalogue's OpenSearch.\n",
       RunCatalog},
      {"cart", "add, remove or list books in the cart",
       "usage: vistrel cart add EAN [--title T] [--author A] [--format F] [--price EUR]\n"
       "                        [--force]\n"
       "       vistrel cart remove EAN\n"
       "       vistrel cart list\n\n"
       "cart add looks the EAN up in the shop's catalogue; the options supply or override\n"
       "the book's data (with --title a book outside the catalogue can be added; the shop\n"
       "then drops it at checkout). A book the account has bought already is refused\n"
       "unless --force is given.\n",
       RunCart},
      {"checkout", "move the cart to the shop",
       "usage: vistrel checkout\n\nPushes the cart to the shop and takes the shop's cart; fails "
       "when the shop dropped\na book (and says how to remove it).\n",
       RunCheckout},
      {"pay", "order the shop's cart and pay it",
       "usage: vistrel pay [--yes] [--timeout SECONDS] [--browser chromium|http] "
       "[--headless]\n\nChecks the cart out (again: the "
       "shop's cart id lives only as long as the\nprocess), shows the shop's cart and its "
       "total and asks before paying, prepares\nand commits the order, pays it in the "
       "browser, and waits until the shop has\ndelivered every book (checked every 5 "
       "seconds). While it waits, the order is\nkept on the device: when the wait fails or "
       "is cut short, vistrel order checks\nit again later.\n\n"
       "  --yes              pay without asking (needed when stdin is no terminal)\n"
       "  --timeout SECONDS  stop waiting for the delivery after about this long\n"
       "  --browser NAME     chromium (a window, or --headless) or http (follows\n"
       "                     redirects only); default a Chromium window when there is\n"
       "                     Chromium and a display, else http\n"
       "  --headless         Chromium without a window\n",
       RunPay},
      {"order", "check a paid order that is not delivered yet",
       "usage: vistrel order [--wait [--timeout SECONDS]] | --forget\n\nChecks the order that pay "
       "kept "
       "on the device (also after a failed delivery check or\na restart) and, once the shop "
       "has delivered every book, reloads the purchases\nand forgets the order. Exit 0 when "
       "delivered or when no order waits, 1 when it is\nnot delivered yet.\n\n"
       "  --wait             check every 5 seconds until it is delivered (Ctrl-C stops)\n"
       "  --timeout SECONDS  with --wait: stop after about this long\n"
       "  --forget           give the order up (the shop no longer knows it): its record\n"
       "                     is kept aside on the device, and pay works again\n",
       RunOrder},
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
      {"config", "show the settings in force and where they come from",
       "usage: vistrel config\n\nShows each setting (device folder, configuration server, "
       "serial number,\npayment browser, event log), its value and where it comes from: a "
       "global option,\nthe environment, the configuration file or the default. The file "
       "is\n$XDG_CONFIG_HOME/vistrel/config (else ~/.config/vistrel/config), lines of\n"
       "\"key = value\" with the keys device_root, switchboard_url, serial, browser and\n"
       "log_file; \"#\" starts a comment.\n",
       RunConfig},
  };
  return commands;
}

}  // namespace vistrel_cli
