// The purchased books and their downloads: purchased, download, status.
#include <unistd.h>

#include <cstdio>

#include "cli.h"
#include "commands.h"
#include "nbutils/downloader.h"
#include "progress_display.h"

namespace vistrel_cli {

using norbel::vistrel::Book;
using norbel::vistrel::BookStatus;
using norbel::vistrel::StoreManager;
using DownloadStatus = norbel::utilities::Downloader::StatusInfo;

namespace {

// Why a download failed, in words for the person waiting for it.
std::string FailureReason(const DownloadStatus& last, const std::string& link) {
  if (link.empty()) {
    return "the shop has no download link for it yet (not delivered: run vistrel order)";
  }
  if (last.url != link) return "no download ran";
  if (!last.refused_type.empty()) {
    return "the server sent " + last.refused_type + " instead of a book";
  }
  std::string reason;
  if (last.too_slow) {
    reason = "the connection was too slow (" + last.error_text + ")";
  } else if (last.timed_out) {
    reason = "timed out (" + last.error_text + ")";
  } else if (last.http_code >= 400) {
    reason = "the server answered HTTP " + std::to_string(last.http_code);
  } else if (!last.error_text.empty()) {
    reason = last.error_text;
  } else {
    reason = "the download failed";
  }
  if (last.kept) {
    reason += "; " + ProgressDisplay::Bytes(last.bytes) + " kept, run the command again to go on";
  }
  return reason;
}

}  // namespace

int RunPurchased(const std::vector<std::string>& words) {
  if (!words.empty()) return Usage("purchased takes no arguments");
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  for (const Book& book : store->purchased()) {
    const BookStatus status = store->GetBookStatus(Prop(book, Book::Ean));
    std::printf("%-14s %-11s %s [%s]%s%s\n", Prop(book, Book::Ean).c_str(),
                StateName(status.status_).c_str(), Describe(book).c_str(),
                Prop(book, Book::EbookType).c_str(), status.path_.empty() ? "" : "  ",
                (status.path_.empty() ? "" : WithHostPath(status.path_)).c_str());
  }
  std::printf("%s purchased\n", Count(store->purchased().size(), "book").c_str());
  return kExitOk;
}

int RunDownload(const std::vector<std::string>& words) {
  Args args;
  std::string error;
  if (!ParseArgs(words, {}, {"--all"}, &args, &error)) return Usage(error);
  if (args.positional.empty() == !args.Has("--all")) {
    return Usage("download needs EANs or --all");
  }
  int code = 0;
  StoreManager* store = StartLoggedIn(&code);
  if (store == nullptr) return code;
  std::vector<Book> books;
  if (args.Has("--all")) {
    for (const Book& book : store->purchased()) books.push_back(book);
  } else {
    for (const std::string& id : args.positional) {
      const std::string ean = id.substr(id.rfind('/') == std::string::npos ? 0 : id.rfind('/') + 1);
      bool found = false;
      for (const Book& book : store->purchased()) {
        if (!found && Prop(book, Book::Ean) == ean) {
          books.push_back(book);
          found = true;
        }
      }
      if (!found) return Fail(kExitUnknownBook, "not a purchased book: " + id);
    }
  }
  int failed = 0;
  for (const Book& book : books) {
    if (DownloadWithProgress(store, book).status_ != norbel::vistrel::kDownloaded) ++failed;
  }
  if (failed != 0) {
    return Fail(kExitFailed, "download failed for " + std::to_string(failed) + " of " +
                                 std::to_string(books.size()) + " books");
  }
  return kExitOk;
}

int RunStatus(const std::vector<std::string>& words) {
  if (words.empty()) return Usage("status needs one or more EANs");
  int code = 0;
  StoreManager* store = StartStore(&code);
  if (store == nullptr) return code;
  for (const std::string& id : words) {
    const BookStatus status = store->GetBookStatusById(id);
    std::printf("%s: %s", id.c_str(), StateName(status.status_).c_str());
    if (status.status_ == norbel::vistrel::kDownloaded) {
      std::printf(" %s", WithHostPath(status.path_).c_str());
    }
    if (status.status_ == norbel::vistrel::kDownloading) std::printf(" %d%%", status.progress_);
    std::printf("\n");
  }
  return kExitOk;
}

BookStatus DownloadWithProgress(StoreManager* store, const Book& book, std::vector<int>* seen) {
  const std::string ean = Prop(book, Book::Ean);
  ProgressDisplay progress(Describe(book));
  auto note = [seen](int state) {
    if (seen != nullptr && (seen->empty() || seen->back() != state)) seen->push_back(state);
  };
  BookStatus status = store->GetBookStatus(ean);
  note(status.status_);
  if (status.status_ == norbel::vistrel::kDownloaded) {
    progress.Finish("already on the device: " + status.path_);
    return status;
  }
  store->DownloadBookById(ean);
  // One download at a time: the store starts the next queued book only when this one is done.
  for (;;) {
    const int running = store->CheckDownloadState();
    status = store->GetBookStatus(ean);
    note(status.status_);
    if (status.status_ == norbel::vistrel::kDownloading) {
      bool active = false;
      int64_t total = 0, done = 0;
      norbel::utilities::Downloader::GetRunningProgress(&active, &total, &done);
      if (active) progress.Update(status.progress_, done, total);
    }
    if (running == 0) break;
    usleep(100 * 1000);
  }
  status = store->GetBookStatus(ean);
  note(status.status_);
  const DownloadStatus last = norbel::utilities::Downloader::LastStatus();
  if (status.status_ == norbel::vistrel::kDownloaded) {
    progress.Update(100, last.bytes, last.total);
    progress.Finish(status.path_);
  } else {
    progress.Finish("failed: " + FailureReason(last, Prop(book, Book::EbookLink)));
  }
  return status;
}

}  // namespace vistrel_cli
