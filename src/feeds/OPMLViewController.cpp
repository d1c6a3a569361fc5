#include "feeds/OPMLViewController.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

#include "core/Log.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "feeds/FeedDiscovery.h"
#include "feeds/OPMLWriter.h"
#include "feeds/XMLReader.h"
#include "net/URL.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "OPMLViewController";
// The folder id every imported folder gets.
constexpr std::string_view kImportedFolderId = "feed-folder";

Error accountNotFound() {
  return Error::make(kOPMLImportErrorDomain, kOPMLImportErrorCode, "The required account not found",
                     "The built-in RSS reader account not found hence not able to import OPML.");
}

Error accountNotFoundForExport() {
  return Error::make(kOPMLImportErrorDomain, kOPMLImportErrorCode, "The required account not found",
                     "The built-in RSS reader account not found hence not able to export OPML.");
}

Error invalidFileFormat() {
  return Error::make(kOPMLImportErrorDomain, kOPMLImportErrorCode, "Cannot import OPML",
                     "Invalid file format");
}

// Only the built-in reader's feeds are imported into and exported.
bool isLocalFeedAccount(const std::shared_ptr<Account>& account) {
  return account && account->serviceType() == ServiceType::kLocalRSS;
}

// An attribute's text, "" when the outline has none (or has an element of that name instead).
std::string_view attribute(const XmlNode& outline, std::string_view name) { return outline.string(name); }

// "title", or "text" when the title is missing or empty.
std::string outlineTitle(const XmlNode& outline) {
  const std::string_view title = trimView(attribute(outline, "title"));
  return std::string(title.empty() ? trimView(attribute(outline, "text")) : title);
}

// An address the reader can fetch: absolute, with a host.
bool isUsableFeedAddress(std::string_view address) {
  const auto url = URL::parse(address);
  return url && url->isAbsolute() && url->hasAuthority() && !url->host().empty();
}

}  // namespace

// One import into one account: existing folders and feed addresses are read once, then kept up to
// date in memory, so a list of thousands of outlines costs no query per outline.
class OPMLViewController::Importer {
 public:
  explicit Importer(Account& account) : account_(account), context_(account.managedObjectContext()) {}

  Result<void> loadExisting() {
    ObjectContext::FetchRequest folders;
    folders.where = "account = ? AND entity = 'FeedFolder'";
    folders.arguments = {account_.objectID().row};
    folders.orderBy = "pos, id";
    auto feedFolders = context_.fetch<FeedFolder>(std::move(folders));
    if (!feedFolders) return fail(feedFolders.error());
    for (auto& folder : *feedFolders) foldersByTitle_.try_emplace(folder->title().value_or(""), folder);
    auto feeds = account_.feeds();
    if (!feeds) return fail(feeds.error());
    for (const auto& feed : *feeds) {
      // The address may be in feed_link or, for feeds added by subscribing, in folder_id.
      for (const auto& address : {feed->feed_link(), feed->folder_id()}) {
        if (address && !address->empty()) subscribed_.insert(comparableFeedAddress(*address));
      }
    }
    return {};
  }

  // A single outline counts as a list of one; positions are places in that list. Folders nest only
  // by name: a folder inside "News" is the flat folder "News - <name>".
  void importOutlines(const XmlValue& outlines, FeedFolder* folder) {
    std::vector<XmlNode> list;
    if (outlines.isDictionary()) {
      list.push_back(outlines.asDictionary());
    } else {
      for (const XmlValue& member : outlines.asList()) {
        if (member.isDictionary()) list.push_back(member.asDictionary());
      }
    }
    for (std::size_t position = 0; position < list.size(); ++position) {
      importOutline(list[position], folder, static_cast<std::int64_t>(position));
    }
  }

  const OPMLImportSummary& summary() const { return summary_; }

 private:
  void importOutline(const XmlNode& outline, FeedFolder* folder, std::int64_t position) {
    const XmlValue* type = outline.find("type");
    const bool typed = type != nullptr && type->isString();
    // Other readers leave the type out of feed outlines; an address says what they are.
    const bool feed = typed ? equalsIgnoringASCIICase(type->asString(), "rss")
                            : !trimView(attribute(outline, "xmlUrl")).empty();
    if (feed) {
      importFeed(outline, folder, position);
    } else if (!typed && outline.find("outline") != nullptr) {
      importFolder(outline, folder, position);
    } else {
      // Other kinds, and empty outlines: other readers write separators and notes that way.
      ++summary_.outlinesIgnored;
    }
  }

  void importFolder(const XmlNode& outline, FeedFolder* enclosing, std::int64_t position) {
    const XmlValue* children = outline.find("outline");
    const std::string name = outlineTitle(outline);
    // A nameless group cannot be a folder: its feeds join the enclosing level.
    if (name.empty()) {
      if (children) importOutlines(*children, enclosing);
      return;
    }
    const std::string title = enclosing ? enclosing->appendTitleToPath(name) : name;
    FeedFolder* folder = nullptr;
    if (auto existing = foldersByTitle_.find(title); existing != foldersByTitle_.end()) {
      folder = existing->second.get();
      ++summary_.foldersSkipped;
    } else {
      auto added = account_.addFeedFolderWithTitle(title, position, std::string(kImportedFolderId));
      folder = added.get();
      foldersByTitle_.emplace(title, std::move(added));
      ++summary_.foldersAdded;
    }
    if (children) importOutlines(*children, folder);
  }

  void importFeed(const XmlNode& outline, FeedFolder* folder, std::int64_t position) {
    const std::string link(trimView(attribute(outline, "xmlUrl")));
    const std::string title = outlineTitle(outline);
    if (!isUsableFeedAddress(link)) {
      logDebugMessage(kLogCategory, "Invalid url for feed {}. Skipped!", title);
      ++summary_.feedsWithoutAddress;
      return;
    }
    // A feed is subscribed once: an import never adds it again in another folder, nor moves it.
    if (!subscribed_.insert(comparableFeedAddress(link)).second) {
      logDebugMessage(kLogCategory, "Already subscribed to {}. Skipped!", link);
      ++summary_.feedsSkipped;
      return;
    }
    auto added = account_.addFeedWithTitle(title.empty() ? link : title, link, std::nullopt, folder);
    added->setPos(position);
    // The built-in reader has no remote service, so a local feed's ext_id is free: it keeps the
    // site's address, which nothing else in the model holds.
    if (const std::string_view site = trimView(attribute(outline, "htmlUrl")); !site.empty()) {
      added->setExt_id(std::string(site));
    }
    ++summary_.feedsAdded;
  }

  Account& account_;
  ObjectContext& context_;
  std::unordered_map<std::string, std::shared_ptr<FeedFolder>> foldersByTitle_;  // FeedFolders only
  std::unordered_set<std::string> subscribed_;  // comparableFeedAddress of every feed
  OPMLImportSummary summary_;
};

OPMLViewController::OPMLViewController(std::shared_ptr<Account> account) : account_(std::move(account)) {}

Result<OPMLImportSummary> OPMLViewController::importOPMLFromURL(const std::filesystem::path& file) {
  if (!isLocalFeedAccount(account_)) return fail(accountNotFound());
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    return fail(Error::make(kOPMLImportErrorDomain, kOPMLImportErrorCode, "Cannot import OPML",
                            fmt::format("{}: {}", file.string(), std::strerror(errno))));
  }
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return importOPMLFromData(bytes.str());
}

Result<OPMLImportSummary> OPMLViewController::importOPMLFromData(std::string_view data) {
  if (!isLocalFeedAccount(account_)) return fail(accountNotFound());
  auto document = XMLReader::dictionaryForXMLData(data);
  if (!document) {
    logDebugMessage(kLogCategory, "OPML not parsed: {}", document.error().message());
    return fail(invalidFileFormat());
  }
  const XmlValue* opml = document->root().find("opml");
  if (opml == nullptr || !opml->isDictionary()) return fail(invalidFileFormat());

  Importer importer(*account_);
  if (auto loaded = importer.loadExisting(); !loaded) return fail(loaded.error());
  const XmlValue* body = opml->asDictionary().find("body");
  if (body != nullptr && body->isDictionary()) {
    if (const XmlValue* outlines = body->asDictionary().find("outline"))
      importer.importOutlines(*outlines, nullptr);
  }
  // One save: a failing one leaves the library as it was before the import.
  if (auto saved = account_->managedObjectContext().save(); !saved) return fail(saved.error());
  if (importDidFinish_) importDidFinish_(*account_);
  return importer.summary();
}

Result<std::string> OPMLViewController::exportOPMLDocument() const {
  if (!isLocalFeedAccount(account_)) return fail(accountNotFoundForExport());
  OPMLWriter writer("Lectern");
  const auto byTitle = [](const std::shared_ptr<Feed>& a, const std::shared_ptr<Feed>& b) {
    return a->title() < b->title();
  };
  // By position (ties by title): the sidebar's order.
  auto folders = account_->sortedFolders();
  if (!folders) return fail(folders.error());
  for (const auto& folder : *folders) {
    if (folder->folderTypeIdentifier() != "FeedFolder") continue;
    auto feeds = std::static_pointer_cast<FeedFolder>(folder)->feeds();
    if (!feeds) return fail(feeds.error());
    std::stable_sort(feeds->begin(), feeds->end(), byTitle);
    writer.openFolder(folder->title().value_or(""));
    for (const auto& feed : *feeds) writer.addFeed(feed->title().value_or(""), feed->URL().value_or(""));
    writer.closeFolder();
  }
  ObjectContext::FetchRequest loose;
  loose.where = "account = ? AND id NOT IN (SELECT feed FROM FeedFolder_feeds)";
  loose.arguments = {account_->objectID().row};
  loose.orderBy = "id";
  auto feeds = account_->managedObjectContext().fetch<Feed>(std::move(loose));
  if (!feeds) return fail(feeds.error());
  std::stable_sort(feeds->begin(), feeds->end(), byTitle);
  for (const auto& feed : *feeds) writer.addFeed(feed->title().value_or(""), feed->URL().value_or(""));
  return writer.document();
}

std::optional<Error> OPMLViewController::exportDestinationProblem(const std::filesystem::path& file,
                                                                   ExistingFile existing) {
  namespace fs = std::filesystem;
  auto problem = [](std::string reason) {
    return Error::make(kOPMLImportErrorDomain, kOPMLImportErrorCode, "Cannot export OPML", std::move(reason));
  };
  std::error_code ec;
  const fs::path folder = file.parent_path().empty() ? fs::path(".") : file.parent_path();
  if (!fs::is_directory(folder, ec)) {
    return problem(fmt::format("The folder {} does not exist; make it first.", folder.string()));
  }
  const auto status = fs::status(file, ec);
  if (!fs::exists(status)) return std::nullopt;
  if (fs::is_directory(status)) return problem(fmt::format("{} is a folder.", file.string()));
  if (existing == ExistingFile::kAny) return std::nullopt;
  // What an export replaces without asking: an earlier export (or any OPML list), or nothing at all.
  constexpr std::uintmax_t kLargestOPML = 64ull << 20;
  const std::uintmax_t size = fs::is_regular_file(status) ? fs::file_size(file, ec) : kLargestOPML + 1;
  if (!ec && size == 0) return std::nullopt;
  bool isOPML = false;
  if (!ec && size <= kLargestOPML) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    auto document = XMLReader::dictionaryForXMLData(bytes.str());
    isOPML = document && document->root().find("opml") != nullptr;
  }
  if (isOPML) return std::nullopt;
  return problem(fmt::format("{} exists and is not an OPML file; choose another name, or replace it on purpose "
                             "(lectern opml export --force).",
                             file.string()));
}

Result<void> OPMLViewController::exportOPMLToURL(const std::filesystem::path& file, ExistingFile existing) const {
  auto document = exportOPMLDocument();
  if (!document) return fail(document.error());
  if (auto problem = exportDestinationProblem(file, existing)) return fail(*problem);
  return writeFileAtomically(file, *document);
}

}  // namespace lectern
