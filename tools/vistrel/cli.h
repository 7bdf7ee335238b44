// What every vistrel command shares: exit codes, the one-line error report, option parsing,
// and starting the store manager.
#ifndef TOOLS_VISTREL_CLI_H_
#define TOOLS_VISTREL_CLI_H_

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "vistrel_store/book.h"
#include "vistrel_store/book_status.h"
#include "vistrel_store/store_manager.h"

namespace vistrel_cli {

// Exit codes of the vistrel tool.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,       // the operation failed or the shop refused it
  kExitUsage = 2,        // bad command line
  kExitUnreachable = 3,  // configuration server or shop unreachable, or no usable configuration
  kExitNotLoggedIn = 4,  // the command needs a session: run "vistrel login" first
  kExitUnknownBook = 5,  // the book is not in the catalogue, the cart or the purchases
};

// Writes "vistrel: <text>" as one line to stderr and returns `code`.
int Fail(int code, const std::string& text);

// Runs one command so that nothing can abort the tool. First a cart file that cannot be read
// is moved aside (kept as "vistrel_cart.unreadable-<time>", reported on stderr and in the
// device log) and replaced by an empty cart. Then `run`; should the library raise the JSON
// library's error on a shop answer of the wrong kind, or anything else escape, the error is
// reported in one line naming the command and exit code 1 is returned.
int GuardedRun(const std::string& command, const std::function<int()>& run);

// A command's arguments: positional ones in order, "--name value" options by name, and
// "--name" flags (value "") for the names listed in `flags`.
struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;
  bool Has(const std::string& name) const { return options.count(name) != 0; }
  std::string Get(const std::string& name) const;
};
// False (with *error set) for an option that lacks its value or is not in `known`.
bool ParseArgs(const std::vector<std::string>& words, const std::vector<std::string>& known,
               const std::vector<std::string>& flags, Args* args, std::string* error);

// Reports a failed shop call: a refusal carries the shop's text (exit 1); a failure without
// one means the shop did not answer (exit 3).
int ReportRefusal(const std::string& what, const norbel::vistrel::ServerApi::Result& result);

// A usage error: "<problem> (see --help)", exit 2.
int Usage(const std::string& problem);

// Prepares the emulated device (and its event log, when none was named) and runs
// StoreManager::Init(). On failure returns null and
// sets *exit_code after reporting the error.
norbel::vistrel::StoreManager* StartStore(int* exit_code);

// StartStore, then fails with exit 4 when there is no session.
norbel::vistrel::StoreManager* StartLoggedIn(int* exit_code);

// The switchboard address in use, for messages.
std::string SwitchboardForMessages();

// Reading a book's properties; an absent one gives "" or 0.
std::string Prop(const norbel::vistrel::Book& book, norbel::vistrel::Book::StringProps prop);
int64_t IntProp(const norbel::vistrel::Book& book, norbel::vistrel::Book::IntProps prop);
// "Author - Title"
std::string Describe(const norbel::vistrel::Book& book);
// "in cart", "downloaded", ...
std::string StateName(int state);
// Lists the cart's lines and its total on stdout.
void PrintCart(norbel::vistrel::StoreManager* store);
// "4,99 EUR"
std::string FormatCents(int64_t cents);

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_CLI_H_
