// What every vistrel command shares: exit codes, the one-line error report, option parsing,
// starting the store manager and judging whether the shop answered.
#ifndef TOOLS_VISTREL_CLI_H_
#define TOOLS_VISTREL_CLI_H_

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "nbutils/http_request.h"
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
// Writes "vistrel: warning: <text>" to stderr.
void Warn(const std::string& text);

// Runs one command so that nothing can abort the tool. First a cart file that cannot be read
// is moved aside (kept as "vistrel_cart.unreadable-<time>", reported on stderr and in the
// device log) and replaced by an empty cart. Then `run`; should the library raise the JSON
// library's error on a shop answer of the wrong kind, or anything else escape, the error is
// reported in one line naming the command and exit code 1 is returned.
int GuardedRun(const std::string& command, const std::function<int()>& run);

// A command's arguments: positional ones in order, "--name value" or "--name=value" options by
// name, and "--name" flags (value "") for the names listed in `flags`.
struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;
  bool Has(const std::string& name) const { return options.count(name) != 0; }
  std::string Get(const std::string& name) const;
};
// False (with *error set) for an option that lacks its value, a flag given a value, or a name
// in neither list (with a suggestion when one is close).
bool ParseArgs(const std::vector<std::string>& words, const std::vector<std::string>& known,
               const std::vector<std::string>& flags, Args* args, std::string* error);

// The candidate closest to `word` when it is a plausible typo of it, else "".
std::string Closest(const std::string& word, const std::vector<std::string>& candidates);

// Reports a failed shop call. The shop's refusal carries its text (exit 1). Otherwise the last
// transfer says what happened: the address and how it failed (exit 3).
int ReportRefusal(const std::string& what, const norbel::vistrel::ServerApi::Result& result);

// A usage error: "<problem> (see --help)", exit 2.
int Usage(const std::string& problem);

// What a command needs from the network. kShop: the configuration and every shop call made
// while starting must have succeeded. kDevice: the device's files are enough; failures of the
// network are tolerated (the command works on what the device stored).
enum class Need { kShop, kDevice };

// Prepares the emulated device (and its event log, when none was named) and runs
// StoreManager::Init(). On failure returns null and sets *exit_code after reporting the error
// (exit 3 with the failed address when the configuration server or the shop did not answer).
norbel::vistrel::StoreManager* StartStore(int* exit_code, Need need = Need::kShop);

// StartStore, then fails with exit 4 when there is no session.
norbel::vistrel::StoreManager* StartLoggedIn(int* exit_code);

// The switchboard address in use, for messages.
std::string SwitchboardForMessages();

// Every HTTP exchange of this process goes through here: printed on stderr when verbose,
// remembered for StartStore's judgement.
void WatchExchanges(bool verbose);
// Whether an exchange got no usable answer: a transport failure, a server error, or for the
// shop's web service (the only address posted to) any status but 200.
bool Unanswered(const norbel::utilities::TransferOutcome& outcome);
// The first unanswered exchange since the last StartStore() or ForgetExchanges(); false when
// none.
bool FirstFailedExchange(norbel::utilities::TransferOutcome* outcome);
void ForgetExchanges();
// For operations that report no failure themselves (CheckOut): exit 3 naming the first
// unanswered exchange since ForgetExchanges(), or 0 when every exchange was answered.
int ReportUnanswered(const std::string& what);
// Whether StartStore's Init fetched the configuration from the configuration server.
bool ConfigurationWasFetched();

// Reading a book's properties; an absent one gives "" or 0.
std::string Prop(const norbel::vistrel::Book& book, norbel::vistrel::Book::StringProps prop);
int64_t IntProp(const norbel::vistrel::Book& book, norbel::vistrel::Book::IntProps prop);
// "Author - Title"
std::string Describe(const norbel::vistrel::Book& book);
// "in cart", "downloaded", ...
std::string StateName(int state);
// Lists the cart's lines and its total on stdout.
void PrintCart(norbel::vistrel::StoreManager* store);
// "4,99 EUR" (the shop sells in euros)
std::string FormatCents(int64_t cents);
// "1 book", "3 books"
std::string Count(size_t n, const std::string& thing);
// The sum of the cart's prices in cents.
int64_t CartCents(const norbel::vistrel::Cart& cart);
// "/mnt/ext1/x (on this host: /root/mnt/ext1/x)"
std::string WithHostPath(const std::string& device_path);

// Refuses (exit 1, with a message) to add a book to the cart that the account has bought
// already, unless `force`; 0 when the book may be added.
int RefuseIfPurchased(norbel::vistrel::StoreManager* store, const std::string& ean, bool force);

// Asks a yes/no question on the terminal; false for anything but "y" or "yes".
bool Confirm(const std::string& question);
// Reads a password: the prompt without echo on a terminal. False when stdin is no terminal.
bool PromptPassword(const std::string& prompt, std::string* password);
// Reads one line from stdin (without its line break). False when there was none.
bool ReadLine(std::string* line);

}  // namespace vistrel_cli

#endif  // TOOLS_VISTREL_CLI_H_
