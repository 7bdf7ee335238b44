// The vistrel commands. Each takes the words after its name and returns an exit code.
#ifndef TOOLS_VISTREL_COMMANDS_H_
#define TOOLS_VISTREL_COMMANDS_H_

#include <string>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/book_status.h"
#include "vistrel_store/store_manager.h"

namespace vistrel_cli {

struct Command {
  const char* name;
  const char* summary;
  const char* usage;  // the command's --help text
  int (*run)(const std::vector<std::string>& words);
};

// Every command, in the order "vistrel --help" lists them.
const std::vector<Command>& Commands();

// Downloads one purchased book, showing its progress (see ProgressDisplay) and the reason of a
// failure, and returns its final status (kDownloaded with its path on success). Polls the store
// every 100 ms. When `seen` is given, each status the book passes through is appended to it
// (repeats collapsed).
norbel::vistrel::BookStatus DownloadWithProgress(norbel::vistrel::StoreManager* store,
                                                 const norbel::vistrel::Book& book,
                                                 std::vector<int>* seen = nullptr);

// One function per command, in a file per group of commands.
using Words = std::vector<std::string>;
int RunInit(const Words& words);  // account_commands.cc
int RunRegister(const Words& words);
int RunLogin(const Words& words);
int RunLogout(const Words& words);
int RunLanguages(const Words& words);
int RunCatalog(const Words& words);  // catalog_commands.cc
int RunCart(const Words& words);
int RunCheckout(const Words& words);  // purchase_commands.cc
int RunPay(const Words& words);
int RunOrder(const Words& words);
int RunPurchased(const Words& words);  // download_commands.cc
int RunDownload(const Words& words);
int RunStatus(const Words& words);
int RunDemo(const Words& words);    // demo_command.cc
int RunConfig(const Words& words);  // tool_config.cc

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_COMMANDS_H_
