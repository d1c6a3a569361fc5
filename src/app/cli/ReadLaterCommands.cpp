// Commands of the read-later and bookmark accounts: save, tag, progress.
#include <algorithm>
#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "accounts/ServiceBase.h"
#include "app/cli/Cli.h"
#include "app/cli/Presentation.h"
#include "content/BookmarkArticleDownload.h"
#include "core/Strings.h"
#include "net/URL.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"

namespace lectern::cli {

namespace {

bool keepsPages(ServiceType type) { return isReadLaterService(type) || isBookmarkService(type); }

// "a, b,,a " -> "a,b": the library keeps tags comma-separated, each once, without blanks.
std::string normalizedTags(std::string_view text) {
  std::vector<std::string> tags;
  for (const auto& piece : split(text, ",")) {
    auto tag = trim(piece);
    if (!tag.empty() && std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(std::move(tag));
  }
  return join(tags, ",");
}

Error usageError(std::string description, std::string suggestion = {}) {
  return Error::make(kLecternErrorDomain, kExitUsage, std::move(description), std::move(suggestion));
}

// The account `save` writes to: the one named, else the only read-later or bookmark account.
Result<std::shared_ptr<Account>> pageAccount(ObjectContext& context, const std::string& name) {
  if (!name.empty()) {
    auto account = findAccount(context, name);
    if (!account) return account;
    if (!keepsPages((*account)->serviceType())) {
      return fail(kLecternErrorDomain, kExitFailure,
                  fmt::format("{} is not a read-later or bookmark account", (*account)->uniqueIdentifier()),
                  "Pages are saved to an Instapaper, Pocket or Pinboard account.");
    }
    return account;
  }
  auto accounts = Account::services(context);
  if (!accounts) return fail(accounts.error());
  std::vector<std::shared_ptr<Account>> candidates;
  for (auto& account : *accounts) {
    if (keepsPages(account->serviceType())) candidates.push_back(account);
  }
  if (candidates.empty()) {
    return fail(kLecternErrorDomain, kExitFailure, "No read-later or bookmark account to save to",
                "Add one with `lectern account add instapaper|pocket|pinboard`.");
  }
  if (candidates.size() > 1) {
    std::vector<std::string> names;
    for (const auto& account : candidates) names.push_back(account->uniqueIdentifier());
    return fail(usageError("Several accounts can keep the page: choose one with --account",
                           fmt::format("Accounts: {}", join(names, ", "))));
  }
  return candidates.front();
}

// The account's folder whose title (any case) or identifier is `name`.
Result<std::shared_ptr<Folder>> folderNamed(Account& account, const std::string& name) {
  auto folders = account.sortedFolders();
  if (!folders) return fail(folders.error());
  std::vector<std::string> titles;
  for (auto& folder : *folders) {
    const auto title = folder->title().value_or("");
    if (equalsIgnoringASCIICase(title, name) || folder->folder_id().value_or("") == name) return folder;
    titles.push_back(title);
  }
  return fail(usageError(fmt::format("{} has no folder named \"{}\"", account.uniqueIdentifier(), name),
                         fmt::format("Its folders: {}", join(titles, ", "))));
}

// The item the service just added, found by its address (the newest, should it be there twice).
Result<std::shared_ptr<Bookmark>> savedItem(ObjectContext& context, Account& account, const std::string& url) {
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND url = ?";
  request.arguments = {account.objectID().row, url};
  request.orderBy = "date_added DESC";
  return context.fetchFirst<Bookmark>(std::move(request));
}

// Runs `call` with a completion and waits on the main queue for it.
template <class Call>
std::optional<Error> waitFor(Library& library, Call&& call) {
  std::optional<std::optional<Error>> outcome;
  call([&outcome](std::optional<Error> error) { outcome = std::move(error); });
  library.environment->mainQueue().runUntil([&] { return outcome.has_value(); });
  return std::move(*outcome);
}

struct SaveOptions {
  std::string url;
  std::string account;
  std::string title;
  std::string tags;
  std::string folder;
  bool json = false;
};

int runSave(CliContext& cli, const SaveOptions& options) {
  const auto url = URL::parse(options.url);
  if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
    printError(usageError(fmt::format("Not a web address: {}", options.url), "Give an http:// or https:// address."));
    return kExitUsage;
  }
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto account = pageAccount(*library->context, options.account);
  if (!account) {
    printError(account.error());
    return account.error().code == kExitUsage ? kExitUsage : kExitFailure;
  }
  if (!library->environment->reachability().isReachable()) {
    // A page is added by its service (which names it); there is nothing to queue it under.
    printError(Error::make(kLecternErrorDomain, kExitFailure, "Cannot save while offline",
                           "Saving needs the service; nothing was stored. Try again when the network is back."));
    return kExitFailure;
  }
  PageToSave page{options.url, std::nullopt, std::nullopt, normalizedTags(options.tags), std::nullopt};
  if (!options.title.empty()) page.title = options.title;
  if (!options.folder.empty()) {
    auto folder = folderNamed(**account, options.folder);
    if (!folder) {
      printError(folder.error());
      return kExitUsage;
    }
    page.folderId = (*folder)->folder_id();
  }
  auto service = std::dynamic_pointer_cast<ServiceBase>((*account)->serviceObject());
  if (!service) {
    printError(Error::make(kLecternErrorDomain, kExitFailure,
                           fmt::format("No service for {}", (*account)->uniqueIdentifier())));
    return kExitFailure;
  }
  if (auto error = waitFor(*library, [&](ServiceCompletion done) { service->addBookmark(page, std::move(done)); })) {
    printError(*error);
    return kExitFailure;
  }

  // The service knows the page now; its text is read here so that it can be read offline at once.
  auto item = savedItem(*library->context, **account, options.url);
  if (!item || !*item) {
    fmt::print("Saved to {}; it appears in the library at the next sync.\n", (*account)->uniqueIdentifier());
    return kExitOk;
  }
  auto& bookmark = **item;
  auto article = downloadArticle(bookmark, library->environment->network());
  if (auto saved = library->context->save(); !saved) {
    printError(saved.error());
    return kExitFailure;
  }
  if (options.json) {
    auto object = bookmarkJson(bookmark, /*withContent=*/false);
    if (!object) {
      printError(object.error());
      return kExitFailure;
    }
    fmt::print("{}\n", object->dump(2));
    return kExitOk;
  }
  fmt::print("Saved to {}: {}\n", (*account)->uniqueIdentifier(), bookmarkLine(bookmark));
  if (!article) {
    fmt::print("The article text could not be read ({}); the next sync tries again.\n", article.error().message());
  } else if (*article == ArticleDownload::kNoArticle) {
    fmt::print("The page holds no readable article text.\n");
  }
  return kExitOk;
}

int runTag(CliContext& cli, std::int64_t id, const std::string& tags) {
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto bookmark = bookmarkById(*library->context, id);
  if (!checkResult(bookmark)) return kExitFailure;
  auto account = (*bookmark)->account();
  if (!checkResult(account)) return kExitFailure;
  auto service = (*account)->serviceObject();
  auto base = std::dynamic_pointer_cast<ServiceBase>(service);
  if (!base || !base->isTagAccount()) {
    printError(Error::make(kLecternErrorDomain, kExitFailure,
                           fmt::format("{} keeps no tags", serviceDescriptionName((*account)->serviceType())),
                           "Tags are kept by Pocket and Pinboard accounts."));
    return kExitFailure;
  }
  if (!library->environment->reachability().isReachable()) {
    // Tag edits have no place in the offline queue: refusing keeps the library and the service alike.
    printError(Error::make(kLecternErrorDomain, kExitFailure, "Cannot change tags while offline",
                           "The tags are unchanged. Try again when the network is back."));
    return kExitFailure;
  }
  const auto previous = (*bookmark)->tags();
  const auto wanted = normalizedTags(tags);
  (*bookmark)->setTags(wanted.empty() ? std::nullopt : std::optional<std::string>(wanted));
  if (auto error = waitFor(*library, [&](ServiceCompletion done) {
        Bookmark::updateTagsOfBookmark(**bookmark, std::move(done));
      })) {
    // What the service did not take is not kept here either.
    (*bookmark)->setTags(previous);
    (void)library->context->save();
    printError(*error);
    fmt::print(stderr, "The tags are unchanged.\n");
    return kExitFailure;
  }
  fmt::print("Tags of {}: {}\n", id, wanted.empty() ? "(none)" : wanted);
  return kExitOk;
}

int runProgress(CliContext& cli, std::int64_t id, double fraction) {
  if (!(fraction >= 0.0 && fraction <= 1.0)) {
    printError(usageError("The progress is a fraction from 0 to 1", "For example `lectern progress 12 0.5`."));
    return kExitUsage;
  }
  auto library = openLibrary(cli);
  if (!library) return kExitFailure;
  auto bookmark = bookmarkById(*library->context, id);
  if (!checkResult(bookmark)) return kExitFailure;
  auto account = (*bookmark)->account();
  if (!checkResult(account)) return kExitFailure;
  if ((*account)->serviceType() != ServiceType::kInstapaper) {
    printError(Error::make(kLecternErrorDomain, kExitFailure,
                           fmt::format("{} keeps no reading progress", serviceDescriptionName((*account)->serviceType())),
                           "Reading progress is kept by Instapaper accounts."));
    return kExitFailure;
  }
  if (auto error = waitFor(*library, [&](ServiceCompletion done) {
        Bookmark::updateBookmark(**bookmark, fraction, std::move(done));
      })) {
    printError(*error);
    return kExitFailure;
  }
  fmt::print("Progress of {}: {:.0f}%\n", id, fraction * 100);
  return kExitOk;
}

}  // namespace

void addReadLaterCommands(CLI::App& app, CliContext& context) {
  auto save = std::make_shared<SaveOptions>();
  auto* saveCommand = app.add_subcommand(
      "save", "Save a web page to a read-later or bookmark account (online only), with its article text");
  saveCommand->add_option("URL", save->url, "The page's address")->required();
  saveCommand->add_option("--account", save->account,
                          "The account (identifier or service name); needed when there are several");
  saveCommand->add_option("--title", save->title, "The title to keep (else the service's)");
  saveCommand->add_option("--tags", save->tags, "Comma-separated tags (Pocket, Pinboard)");
  saveCommand->add_option("--folder", save->folder, "The account's folder to save into (name or identifier)");
  saveCommand->add_flag("--json", save->json, "The saved item as JSON");
  context.onCommand(saveCommand, [&context, save] { return runSave(context, *save); });

  auto tagId = std::make_shared<std::int64_t>(0);
  auto tagText = std::make_shared<std::string>();
  auto* tag = app.add_subcommand("tag", "Replace the tags of a saved item (at its service too; online only)");
  tag->add_option("ID", *tagId, "The item's id (from `lectern list`)")->required();
  tag->add_option("TAGS", *tagText, "Comma-separated tags; \"\" clears them")->required();
  context.onCommand(tag, [&context, tagId, tagText] { return runTag(context, *tagId, *tagText); });

  auto progressId = std::make_shared<std::int64_t>(0);
  auto fraction = std::make_shared<double>(0);
  auto* progress = app.add_subcommand("progress", "Set how far an Instapaper article has been read (online only)");
  progress->add_option("ID", *progressId, "The item's id (from `lectern list`)")->required();
  progress->add_option("FRACTION", *fraction, "From 0 (not started) to 1 (finished)")->required();
  context.onCommand(progress, [&context, progressId, fraction] { return runProgress(context, *progressId, *fraction); });
}

}  // namespace lectern::cli
