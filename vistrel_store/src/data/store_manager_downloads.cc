// Background downloads of purchased books, one at a time, and the status of every book.
#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_set>

#include "book_props.h"
#include "check_log.h"
#include "nbutils/device_environment.h"
#include "vistrel_store/book_file.h"
#include "vistrel_store/store_manager.h"

namespace norbel {
namespace vistrel {
namespace {

constexpr char kDownloadError[] = "@DownloadError";
constexpr int kDownloadErrorTimeout = 7000;
constexpr char kScannerApp[] = "/kelmast/bin/scanner.app";
constexpr char kScanRequest[] = "-scan:/mnt/ext1/Downloads";
constexpr int kScannerRequestNumber = 84;
constexpr int kScannerTimeout = 2000;
// Gives the scanner time to take the request before the caller's screen goes on.
constexpr useconds_t kScannerPause = 200000;
// Partial files of earlier downloads are kept for this long to be continued.
constexpr int64_t kPartialMaxAgeSeconds = int64_t{3} * 24 * 3600;

// The text after the last "/" (all of it without one).
std::string AfterLastSlash(const std::string& id) { return id.substr(id.rfind('/') + 1); }

void ShowDownloadError() {
  Message(ICON_ERROR, kDownloadError, kDownloadError, kDownloadErrorTimeout);
}

bool EqualsIgnoringCase(const std::string& a, const char* b) {
  return strcasecmp(a.c_str(), b) == 0;
}

// The device reads files with this extension, or the file is a zipped FictionBook.
bool IsSupported(const std::string& path, const std::string& ext) {
  if (const ifiletype* types = GetSupportedFileTypes()) {
    for (const ifiletype* type = types; type->extension != nullptr; ++type) {
      if (EqualsIgnoringCase(ext, type->extension)) return true;
    }
  }
  return path.size() >= 9 && EqualsIgnoringCase(path.substr(path.size() - 8), ".fb2.zip");
}

}  // namespace

void StoreManager::SetPurchased(std::vector<Book> books) {
  purchased_ = std::move(books);
  purchased_index_.clear();
  purchased_index_.reserve(purchased_.size());
  for (size_t i = 0; i < purchased_.size(); ++i) {
    purchased_index_.emplace(EanOf(purchased_[i]), i);  // keeps the first of equal Eans
  }
  partials_checked_ = false;
}

const Book* StoreManager::FindPurchased(const std::string& ean) const {
  auto found = purchased_index_.find(ean);
  return found == purchased_index_.end() ? nullptr : &purchased_[found->second];
}

int StoreManager::DownloadBookById(const std::string& id) {
  if (const Book* book = FindPurchased(AfterLastSlash(id))) {
    download_queue_.push_back(*book);
    CheckDownloadState();
  }
  return 0;
}

int StoreManager::CheckDownloadState() {
  int result = 0;
  bool finished = false;
  if (download_future_.valid()) {
    result = 1;
    finished = download_future_.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready;
  }
  if (finished) {
    if (download_future_.get() != 0) {
      ShowDownloadError();
    } else {
      FinishDownload();
    }
    current_download_ = Book();
  }

  // The next queued book is taken even while a download still runs; it is then not started.
  if (download_queue_.empty()) return result;
  current_download_ = Book(download_queue_.front());
  download_queue_.erase(download_queue_.begin());
  std::string url = current_download_.string_props_[Book::EbookLink];
  std::string file_name = GenerateBookShortFileName(current_download_);
  if (!download_future_.valid()) {
    // Once per list of purchased books, the first task removes the partial files of books no
    // longer bought, and old ones, before it starts. An empty list (the shop did not answer)
    // says nothing about what is wanted, so nothing is removed then.
    std::shared_ptr<std::unordered_set<std::string>> wanted;
    if (!partials_checked_ && !purchased_.empty()) {
      wanted = std::make_shared<std::unordered_set<std::string>>();
      for (const Book& book : purchased_) wanted->insert(GenerateBookShortFileName(book));
      for (const Book& book : download_queue_) wanted->insert(GenerateBookShortFileName(book));
      wanted->insert(file_name);
      partials_checked_ = true;
    }
    download_future_ = std::async(std::launch::async, [this, url, file_name, wanted] {
      if (wanted) {
        downloader_.RemoveStalePartials(
            [&wanted](const std::string& name) { return wanted->count(name) > 0; },
            kPartialMaxAgeSeconds);
      }
      return downloader_.DownloadResource(url, file_name, nullptr);
    });
  }
  return result;
}

void StoreManager::FinishDownload() {
  utilities::Downloader::StatusInfo info = downloader_.GetStatusInfo();
  std::string path = info.file_path;
  nb_print_log2(kLogProgress, kStoreManagerSource, 441,
                "int norbel::vistrel::StoreManager::CheckDownloadState()", "filename [%s]",
                path.c_str());

  // The declared type names the file, unless the server only forced a download.
  if (info.content_type.rfind("application/force-download", 0) != 0) {
    std::string ext = ExtentionByMime(info.content_type);
    if (!ext.empty()) {
      std::string renamed = std::get<0>(ParseToNameExtention(path)) + "." + ext;
      std::rename(utilities::DevicePath(path).c_str(), utilities::DevicePath(renamed).c_str());
      path = renamed;
    }
  }

  std::string ext = std::get<1>(ParseToNameExtention(path));
  if (IsSupported(path, ext) && ext != "htm" && ext != "html") {
    int task = FindTaskByAppName(kScannerApp);
    if (task != -1) {
      SendRequestTo(task, kScannerRequestNumber, const_cast<char*>(kScanRequest),
                    static_cast<int>(std::strlen(kScanRequest)), 0, kScannerTimeout);
      usleep(kScannerPause);
    }
  } else {
    // Kept for whoever explains the failure: the type that made the file unwanted.
    utilities::Downloader::NoteRefusedType(info.content_type.empty() ? "." + ext
                                                                     : info.content_type);
    ShowDownloadError();
    pk_unlink(path.c_str());
  }
}

BookStatus StoreManager::GetBookStatus(const std::string& ean) {
  BookStatus status;
  if (cart_.IsContain(ean)) {
    status.status_ = kInCart;
    return status;
  }
  const Book* purchased = FindPurchased(ean);
  if (purchased == nullptr) return status;

  std::string path = GetBookFile(*purchased);
  if (!path.empty()) {
    status.status_ = kDownloaded;
    status.path_ = path;
  } else if (current_download_.string_props_[Book::Ean] == ean) {
    status.status_ = kDownloading;
    bool active = false;
    std::string name;
    int total = 0;
    int done = 0;
    downloader_.GetProgress(&active, &name, &total, &done);
    if (active && total >= 1) {
      status.progress_ = static_cast<int>(static_cast<int64_t>(done) * 100 / total);
    }
  } else {
    status.status_ = kPurchased;
  }
  return status;
}

BookStatus StoreManager::GetBookStatusById(const std::string& id) {
  return GetBookStatus(AfterLastSlash(id));
}

}  // namespace vistrel
}  // namespace norbel
