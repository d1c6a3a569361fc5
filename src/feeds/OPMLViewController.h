#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "store/Account.h"

namespace lectern {

inline constexpr std::string_view kOPMLImportErrorDomain = "OPMLImport";
inline constexpr int kOPMLImportErrorCode = 100;

// What one import did. A folder that already existed counts as skipped (its feeds still go into it).
struct OPMLImportSummary {
  std::int64_t foldersAdded = 0;
  std::int64_t foldersSkipped = 0;
  std::int64_t feedsAdded = 0;
  std::int64_t feedsSkipped = 0;         // already subscribed (in any folder, or in none)
  std::int64_t feedsWithoutAddress = 0;  // "Invalid url for feed ... Skipped!"
  std::int64_t outlinesIgnored = 0;      // outlines of other types (links, includes ...) and empty ones
};

// The subscription list of the built-in reader as OPML: export of its folders and feeds, import
// of another reader's list. Made for one account on the thread that owns the account's context.
class OPMLViewController {
 public:
  // The suggested export file name.
  static constexpr std::string_view kDefaultFileName = "Lectern.opml";

  // `account` is the built-in reader's account ("localrss"), or nullptr when the library has
  // none: then import and export fail with "The required account not found".
  explicit OPMLViewController(std::shared_ptr<Account> account);

  // Called after an import that worked, with the account it filled.
  void setImportDidFinish(std::function<void(Account&)> opmlImportDidFinishedToAccount) {
    importDidFinish_ = std::move(opmlImportDidFinishedToAccount);
  }

  // What an export may replace.
  enum class ExistingFile { kOnlyOPML, kAny };

  // Writes the account's FeedFolders (by position, each with its feeds by title), then the feeds in
  // no folder (by title), as OPML 1.0 in UTF-8, through a temporary file and a rename. It makes no
  // folder: a missing one is an error. An existing file that is not OPML (nor empty) is replaced
  // only with ExistingFile::kAny; otherwise "Cannot export OPML" names it and nothing is written.
  Result<void> exportOPMLToURL(const std::filesystem::path& file,
                               ExistingFile existing = ExistingFile::kOnlyOPML) const;
  // Why `file` may not receive an export, or nothing when it may.
  static std::optional<Error> exportDestinationProblem(const std::filesystem::path& file, ExistingFile existing);
  // The document exportOPMLToURL writes.
  Result<std::string> exportOPMLDocument() const;

  // Reads the file and imports its outlines into the account; nothing is fetched. An outline with
  // an address ("xmlUrl") or the type "rss" is a feed; one with neither is a folder when it has
  // outlines inside, and ignored when it has none. A feed the account already has (addresses
  // compared by comparableFeedAddress), wherever it is, is skipped and stays where it is. A file that is
  // not XML (or not OPML) gives "Cannot import OPML" / "Invalid file format" before anything
  // changes. The import is saved with one save of the account's context, so a store failure rolls
  // it all back and the library stays as it was (save the context's other changes first).
  Result<OPMLImportSummary> importOPMLFromURL(const std::filesystem::path& file);
  // The same for a document in memory.
  Result<OPMLImportSummary> importOPMLFromData(std::string_view data);

 private:
  class Importer;

  std::shared_ptr<Account> account_;
  std::function<void(Account&)> importDidFinish_;
};

}  // namespace lectern
