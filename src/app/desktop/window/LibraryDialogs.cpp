// The window's dialogs for the library: subscribe, unsubscribe, move and rename, OPML, smart
// folders from a search, sending and sharing, removing an account.

#include <fmt/format.h>

#include "app/desktop/window/DesktopWindow.h"
#include "feeds/FeedDiscovery.h"
#include "net/BrowserSignIn.h"

namespace lectern::desktop {
namespace {

// An AdwMessageDialog with Cancel and one action; `extra` (when given) goes inside it.
GtkWidget* messageDialog(GtkWindow* parent, const std::string& heading, const std::string& body, const char* action,
                         AdwResponseAppearance appearance, GtkWidget* extra = nullptr) {
  GtkWidget* dialog = adw_message_dialog_new(parent, heading.c_str(), body.empty() ? nullptr : body.c_str());
  adw_message_dialog_add_responses(ADW_MESSAGE_DIALOG(dialog), "cancel", "Cancel", "ok", action, nullptr);
  adw_message_dialog_set_response_appearance(ADW_MESSAGE_DIALOG(dialog), "ok", appearance);
  adw_message_dialog_set_default_response(ADW_MESSAGE_DIALOG(dialog), "ok");
  adw_message_dialog_set_close_response(ADW_MESSAGE_DIALOG(dialog), "cancel");
  if (extra != nullptr) adw_message_dialog_set_extra_child(ADW_MESSAGE_DIALOG(dialog), extra);
  return dialog;
}

GtkWidget* labelledEntry(GtkWidget* box, const char* label, const std::string& text) {
  GtkWidget* caption = gtk_label_new(label);
  gtk_label_set_xalign(GTK_LABEL(caption), 0);
  gtk_box_append(GTK_BOX(box), caption);
  GtkWidget* entry = gtk_entry_new();
  gtk_editable_set_text(GTK_EDITABLE(entry), text.c_str());
  gtk_entry_set_activates_default(GTK_ENTRY(entry), TRUE);
  gtk_box_append(GTK_BOX(box), entry);
  return entry;
}

std::string entryText(GtkWidget* entry) {
  if (GTK_IS_COMBO_BOX(entry)) entry = gtk_combo_box_get_child(GTK_COMBO_BOX(entry));
  return gtk_editable_get_text(GTK_EDITABLE(entry));
}

// A folder to choose among the account's folders of feeds, or a new name to type.
GtkWidget* folderChooser(GtkWidget* box, const char* label) {
  GtkWidget* caption = gtk_label_new(label);
  gtk_label_set_xalign(GTK_LABEL(caption), 0);
  gtk_box_append(GTK_BOX(box), caption);
  GtkWidget* chooser = gtk_combo_box_text_new_with_entry();
  gtk_box_append(GTK_BOX(box), chooser);
  return chooser;
}

void setFolderChoices(GtkWidget* chooser, const std::vector<std::string>& titles) {
  gtk_combo_box_text_remove_all(GTK_COMBO_BOX_TEXT(chooser));
  for (const auto& title : titles) gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(chooser), title.c_str());
}

// Runs `onOk` when the dialog answers "ok", then lets the dialog go.
void onResponse(GtkWidget* dialog, std::function<void()> onOk) {
  auto* held = new std::function<void()>(std::move(onOk));
  g_signal_connect_data(
      dialog, "response",
      G_CALLBACK(+[](AdwMessageDialog*, const char* response, gpointer data) {
        if (std::string_view(response) == "ok") (*static_cast<std::function<void()>*>(data))();
      }),
      held, +[](gpointer data, GClosure*) { delete static_cast<std::function<void()>*>(data); }, GConnectFlags{});
}

// A drop-down of strings; its selection is an index into `items`.
GtkWidget* dropDown(const std::vector<std::string>& items, guint selected = 0) {
  std::vector<const char*> strings;
  for (const auto& item : items) strings.push_back(item.c_str());
  strings.push_back(nullptr);
  GtkWidget* widget = gtk_drop_down_new_from_strings(strings.data());
  if (selected < items.size()) gtk_drop_down_set_selected(GTK_DROP_DOWN(widget), selected);
  return widget;
}

}  // namespace

void DesktopWindow::subscribeTo(const std::string& address) { runSubscribe(address); }

void DesktopWindow::runSubscribe(const std::string& address) {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  GtkWidget* url = labelledEntry(box, "Web address of a site or feed", address);
  auto accounts = controller_->feedAccounts();
  std::vector<std::string> names;
  for (const auto& account : accounts) names.push_back(account.title);
  if (accounts.empty()) names.push_back("Built-in reader");
  GtkWidget* caption = gtk_label_new("Account");
  gtk_label_set_xalign(GTK_LABEL(caption), 0);
  gtk_box_append(GTK_BOX(box), caption);
  GtkWidget* account = dropDown(names);
  gtk_box_append(GTK_BOX(box), account);
  GtkWidget* folder = folderChooser(box, "Folder (optional; a new name makes one)");
  // The folders offered are those of the chosen account.
  const auto showFolders = [this, accounts, account, folder] {
    const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(account));
    setFolderChoices(folder, index < accounts.size() ? controller_->feedFolderTitles(accounts[index].id)
                                                     : std::vector<std::string>{});
  };
  showFolders();
  auto* held = new std::function<void()>(showFolders);
  g_signal_connect_data(
      account, "notify::selected",
      G_CALLBACK(+[](GObject*, GParamSpec*, gpointer data) { (*static_cast<std::function<void()>*>(data))(); }), held,
      +[](gpointer data, GClosure*) { delete static_cast<std::function<void()>*>(data); }, GConnectFlags{});
  GtkWidget* dialog = messageDialog(window(), "Subscribe", "Lectern finds the feeds a page offers.", "Subscribe",
                                    ADW_RESPONSE_SUGGESTED, box);
  onResponse(dialog, [this, url, account, folder, accounts] {
    const std::string typed = entryText(url);
    if (typed.empty()) return;
    const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(account));
    const std::int64_t accountRow = index < accounts.size() ? accounts[index].id : 0;
    const std::string folderTitle = entryText(folder);
    std::optional<std::string> inFolder = folderTitle.empty() ? std::nullopt : std::optional(folderTitle);
    controller_->discoverFeeds(typed, [this, accountRow, inFolder, typed](Result<std::vector<QKFeedLinkItem>> feeds) {
      if (!feeds) {
        // A hosted reader finds feeds itself, from where it stands: let it try the address.
        if (accountRow != 0) {
          controller_->subscribe(accountRow, normalizedFeedAddress(typed), inFolder, showingErrors());
          return;
        }
        return showError(feeds.error());
      }
      if (feeds->size() == 1) {
        controller_->subscribe(accountRow, feeds->front().URL, inFolder, [this](std::optional<Error> error) {
          if (error) return showError(*error);
          showToast("Subscribed");
        });
        return;
      }
      chooseFeed(accountRow, inFolder, std::move(*feeds));
    });
  });
  showDialog(dialog);
}

void DesktopWindow::chooseFeed(std::int64_t account, std::optional<std::string> folder, std::vector<QKFeedLinkItem> feeds) {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
  GtkWidget* first = nullptr;
  std::vector<GtkWidget*> buttons;
  for (const auto& feed : feeds) {
    const std::string label = feed.title.empty() ? feed.URL : fmt::format("{}\n{}", feed.title, feed.URL);
    GtkWidget* button = gtk_check_button_new_with_label(label.c_str());
    if (first == nullptr) {
      first = button;
      gtk_check_button_set_active(GTK_CHECK_BUTTON(button), TRUE);
    } else {
      gtk_check_button_set_group(GTK_CHECK_BUTTON(button), GTK_CHECK_BUTTON(first));
    }
    buttons.push_back(button);
    gtk_box_append(GTK_BOX(box), button);
  }
  GtkWidget* dialog = messageDialog(window(), "Choose a Feed", fmt::format("This page offers {} feeds.", feeds.size()),
                                    "Subscribe", ADW_RESPONSE_SUGGESTED, box);
  onResponse(dialog, [this, account, folder, feeds, buttons] {
    for (size_t i = 0; i < buttons.size(); ++i) {
      if (!gtk_check_button_get_active(GTK_CHECK_BUTTON(buttons[i]))) continue;
      controller_->subscribe(account, feeds[i].URL, folder, [this](std::optional<Error> error) {
        if (error) return showError(*error);
        showToast("Subscribed");
      });
    }
  });
  showDialog(dialog);
}

void DesktopWindow::runUnsubscribe() {
  const SourceNode* node = controller_->sourceNode();
  if (node == nullptr || node->key.kind != SourceKind::kFeed) return;
  const std::int64_t feed = node->key.id;
  GtkWidget* dialog = messageDialog(window(), fmt::format("Unsubscribe from {}?", node->title),
                                    "Its articles go too; starred ones are kept in the built-in reader.", "Unsubscribe",
                                    ADW_RESPONSE_DESTRUCTIVE);
  onResponse(dialog, [this, feed] {
    controller_->unsubscribe(feed, showingErrors());
  });
  showDialog(dialog);
}

void DesktopWindow::runMoveFeed() {
  const SourceNode* node = controller_->sourceNode();
  if (node == nullptr || node->key.kind != SourceKind::kFeed) return;
  const std::int64_t feed = node->key.id;
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  GtkWidget* entry = folderChooser(box, "Folder (empty: no folder; a new name makes one)");
  setFolderChoices(entry, controller_->feedFolderTitles(node->account));
  GtkWidget* dialog = messageDialog(window(), fmt::format("Move {}", node->title), "", "Move", ADW_RESPONSE_SUGGESTED, box);
  onResponse(dialog, [this, feed, entry] {
    const std::string folder = entryText(entry);
    controller_->moveFeed(feed, folder.empty() ? std::nullopt : std::optional(folder), showingErrors());
  });
  showDialog(dialog);
}

void DesktopWindow::runRenameFolder() {
  const SourceNode* node = controller_->sourceNode();
  if (node == nullptr || node->key.kind != SourceKind::kFolder) return;
  const std::int64_t folder = node->key.id;
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  GtkWidget* entry = labelledEntry(box, "New name", node->title);
  GtkWidget* dialog = messageDialog(window(), "Rename Folder", "", "Rename", ADW_RESPONSE_SUGGESTED, box);
  onResponse(dialog, [this, folder, entry] {
    const std::string title = entryText(entry);
    if (title.empty()) return;
    controller_->renameFolder(folder, title, showingErrors());
  });
  showDialog(dialog);
}

void DesktopWindow::runRemoveAccount() {
  const SourceNode* node = controller_->sourceNode();
  if (node == nullptr || node->key.kind != SourceKind::kAccount) return;
  const std::int64_t account = node->key.id;
  GtkWidget* dialog = messageDialog(window(), fmt::format("Remove {}?", node->title),
                                    "Its articles leave this computer; starred ones are kept in the built-in reader. "
                                    "Nothing changes at the service.",
                                    "Remove", ADW_RESPONSE_DESTRUCTIVE);
  onResponse(dialog, [this, account] {
    controller_->removeAccount(account, showingErrors());
  });
  showDialog(dialog);
}

namespace {

// The file the person chose, or nothing for Cancel.
void chooseFile(GtkWindow* parent, const char* title, GtkFileChooserAction action, const char* accept,
                const std::string& suggestedName, std::function<void(std::filesystem::path)> chosen) {
  GtkFileChooserNative* chooser = gtk_file_chooser_native_new(title, parent, action, accept, "Cancel");
  if (!suggestedName.empty()) gtk_file_chooser_set_current_name(GTK_FILE_CHOOSER(chooser), suggestedName.c_str());
  GtkFileFilter* filter = gtk_file_filter_new();
  gtk_file_filter_set_name(filter, "OPML files");
  gtk_file_filter_add_pattern(filter, "*.opml");
  gtk_file_filter_add_pattern(filter, "*.xml");
  gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(chooser), filter);
  g_object_unref(filter);
  auto* held = new std::function<void(std::filesystem::path)>(std::move(chosen));
  g_signal_connect(chooser, "response", G_CALLBACK(+[](GtkNativeDialog* dialog, int response, gpointer data) {
                     std::unique_ptr<std::function<void(std::filesystem::path)>> chosen(
                         static_cast<std::function<void(std::filesystem::path)>*>(data));
                     if (response == GTK_RESPONSE_ACCEPT) {
                       GFile* file = gtk_file_chooser_get_file(GTK_FILE_CHOOSER(dialog));
                       if (char* path = file ? g_file_get_path(file) : nullptr) {
                         (*chosen)(path);
                         g_free(path);
                       }
                       if (file) g_object_unref(file);
                     }
                     g_object_unref(dialog);
                   }),
                   held);
  gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
}

}  // namespace

void DesktopWindow::runImportOpml() {
  chooseFile(window(), "Import OPML", GTK_FILE_CHOOSER_ACTION_OPEN, "Import", "", [this](std::filesystem::path file) {
    auto imported = controller_->importOpml(file);
    if (!imported) return showError(imported.error());
    showToast(*imported);
  });
}

void DesktopWindow::runExportOpml() {
  chooseFile(window(), "Export OPML", GTK_FILE_CHOOSER_ACTION_SAVE, "Export", "Lectern Subscriptions.opml",
             [this](std::filesystem::path file) {
               if (auto exported = controller_->exportOpml(file); !exported) return showError(exported.error());
               showToast(fmt::format("Exported to {}", file.string()));
             });
}

void DesktopWindow::runSaveSearch() {
  if (controller_->search().empty()) return;
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  GtkWidget* entry = labelledEntry(box, "Title", controller_->search());
  GtkWidget* dialog = messageDialog(window(), "Save Search as Smart Folder",
                                    fmt::format("The folder keeps what \"{}\" finds.", controller_->search()), "Save",
                                    ADW_RESPONSE_SUGGESTED, box);
  onResponse(dialog, [this, entry] {
    auto saved = controller_->saveSearchAsSmartFolder(entryText(entry));
    if (!saved) return showError(saved.error());
    gtk_editable_set_text(GTK_EDITABLE(search_), "");
  });
  showDialog(dialog);
}

void DesktopWindow::runRemoveSmartFolder() {
  const SourceNode* node = controller_->sourceNode();
  if (node == nullptr || node->key.kind != SourceKind::kSmartFolder) return;
  const std::int64_t id = node->key.id;
  GtkWidget* dialog = messageDialog(window(), fmt::format("Remove {}?", node->title),
                                    "Only the smart folder goes; its articles stay where they are.", "Remove",
                                    ADW_RESPONSE_DESTRUCTIVE);
  onResponse(dialog, [this, id] {
    if (auto removed = controller_->removeSmartFolder(id); !removed) showError(removed.error());
  });
  showDialog(dialog);
}

void DesktopWindow::runSendTo() {
  auto accounts = controller_->readLaterAccounts();
  if (accounts.empty()) return;
  std::vector<std::string> names;
  for (const auto& account : accounts) names.push_back(account.title);
  GtkWidget* choice = dropDown(names);
  GtkWidget* dialog = messageDialog(window(), "Send to Read Later", "", "Send", ADW_RESPONSE_SUGGESTED, choice);
  onResponse(dialog, [this, choice, accounts] {
    const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(choice));
    if (index >= accounts.size()) return;
    const std::string title = accounts[index].title;
    controller_->sendSelectedTo(accounts[index].id, [this, title](std::optional<Error> error) {
      if (error) return showError(*error);
      showToast(fmt::format("Sent to {}", title));
    });
  });
  showDialog(dialog);
}

void DesktopWindow::runEmail() {
  const ArticleRow* row = controller_->articles().selected();
  if (row == nullptr || row->url.empty()) return;
  // xdg-email hands the message to the person's mail program.
  const gchar* argv[] = {"xdg-email", "--subject", row->title.c_str(), "--body", row->url.c_str(), nullptr};
  GError* error = nullptr;
  if (!g_spawn_async(nullptr, const_cast<gchar**>(argv), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, nullptr, &error)) {
    showError(Error::make(kLecternErrorDomain, 1, "Failed to start the mail program",
                          error ? error->message : "xdg-email could not be run."));
    g_clear_error(&error);
  }
}

}  // namespace lectern::desktop
