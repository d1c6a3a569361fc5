#include "app/desktop/window/DesktopWindow.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/AppEnvironment.h"
#include "app/QKApplicationController.h"
#include "app/desktop/ArticleTemplate.h"
#include "app/desktop/Favicons.h"
#include "core/Dates.h"
#include "core/Log.h"
#include "core/UserDefaults.h"
#include "net/BrowserSignIn.h"
#include "store/BookmarkImage.h"

namespace lectern::desktop {
namespace {

constexpr std::string_view kLogCategory = "DesktopWindow";

// Row data: which source or article a list row stands for.
constexpr const char* kSourceKind = "lectern-source-kind";
constexpr const char* kSourceId = "lectern-source-id";

std::int64_t rowInteger(GtkWidget* row, const char* key) {
  return static_cast<std::int64_t>(reinterpret_cast<intptr_t>(g_object_get_data(G_OBJECT(row), key)));
}

void setRowInteger(GtkWidget* row, const char* key, std::int64_t value) {
  g_object_set_data(G_OBJECT(row), key, reinterpret_cast<gpointer>(static_cast<intptr_t>(value)));
}

SourceKey sourceKeyOf(GtkListBoxRow* row) {
  return {static_cast<SourceKind>(rowInteger(GTK_WIDGET(row), kSourceKind)), rowInteger(GTK_WIDGET(row), kSourceId)};
}

const char* symbolicIcon(const SourceNode& node) {
  switch (node.key.kind) {
    case SourceKind::kAll:
      return "emblem-documents-symbolic";
    case SourceKind::kAccount:
      if (node.service == ServiceType::kSmartFolders) return "folder-saved-search-symbolic";
      return isReadLaterService(node.service) ? "bookmark-new-symbolic" : "network-server-symbolic";
    case SourceKind::kFolder:
      return "folder-symbolic";
    case SourceKind::kFeed:
      return "application-rss+xml-symbolic";
    case SourceKind::kSmartFolder:
      return "folder-saved-search-symbolic";
  }
  return "folder-symbolic";
}

GtkWidget* dimLabel(const std::string& text) {
  GtkWidget* label = gtk_label_new(text.c_str());
  gtk_widget_add_css_class(label, "dim-label");
  return label;
}

bool focusIsEditable(GtkWindow* window) {
  GtkWidget* focus = gtk_root_get_focus(GTK_ROOT(window));
  for (GtkWidget* widget = focus; widget != nullptr; widget = gtk_widget_get_parent(widget)) {
    if (GTK_IS_EDITABLE(widget) || GTK_IS_TEXT_VIEW(widget)) return true;
  }
  return false;
}

// Shows the picture in `file`; one that does not load keeps the image as it was (the feed symbol),
// never the "broken image" icon.
void setIconFromFile(GtkImage* image, const std::filesystem::path& file) {
  GdkTexture* texture = gdk_texture_new_from_filename(file.c_str(), nullptr);
  if (texture == nullptr) return;
  gtk_image_set_from_paintable(image, GDK_PAINTABLE(texture));
  g_object_unref(texture);
}

// Removes every row of a list box.
void clearList(GtkListBox* box) {
  while (GtkWidget* child = gtk_widget_get_first_child(GTK_WIDGET(box))) gtk_list_box_remove(box, child);
}

}  // namespace

DesktopWindow::DesktopWindow(GtkApplication* application, AppEnvironment& environment, QKApplicationController& app)
    : environment_(environment), app_(app) {
  favicons_ = std::make_unique<FaviconCache>(environment_.network(), environment_.paths().cacheFolder / "Favicons",
                                             environment_.clock());
  controller_ = std::make_unique<DesktopController>(environment_, app_, *this);
  build(application);
  addActions();
  controller_->reloadSources();
  controller_->reloadArticles();
  updateActions();
  statusChanged();
}

DesktopWindow::~DesktopWindow() {
  *alive_ = false;
  if (dialog_ != nullptr) gtk_window_destroy(GTK_WINDOW(dialog_));
  // Nothing of the window may call back into this object while it goes.
  g_signal_handlers_disconnect_by_data(adw_style_manager_get_default(), this);
  for (GtkWidget* widget : {GTK_WIDGET(sources_), GTK_WIDGET(articles_), GTK_WIDGET(web_), search_, filter_,
                            readableToggle_, window_}) {
    g_signal_handlers_disconnect_by_data(widget, this);
  }
  g_signal_handlers_disconnect_by_data(articleSelection_, this);
  boundRows_.clear();
  gtk_window_destroy(GTK_WINDOW(window_));
  // The controller's completions and the favicons' must not reach a window that is gone.
  controller_.reset();
  favicons_.reset();
  g_object_unref(window_);
  g_object_unref(articleItems_);
}

void DesktopWindow::present() { gtk_window_present(GTK_WINDOW(window_)); }

const std::string& DesktopWindow::statusText() const { return controller_->statusText(); }

void DesktopWindow::build(GtkApplication* application) {
  window_ = adw_application_window_new(application);
  g_object_ref_sink(window_);
  gtk_window_set_title(GTK_WINDOW(window_), "Lectern");
  gtk_window_set_default_size(GTK_WINDOW(window_), 1200, 760);
  // Closing the window ends the program; the window itself stays until the session goes, so that
  // nothing late finds its widgets gone.
  gtk_window_set_hide_on_close(GTK_WINDOW(window_), TRUE);
  g_signal_connect(window_, "close-request", G_CALLBACK(+[](GtkWindow* window, gpointer) {
                     if (GtkApplication* application = gtk_window_get_application(window)) {
                       g_application_quit(G_APPLICATION(application));
                     }
                     return FALSE;
                   }),
                   this);

  GtkWidget* root = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  GtkWidget* header = adw_header_bar_new();
  gtk_box_append(GTK_BOX(root), header);

  // Header: sync, subscribe, mark, star, open, readable, search; the menu for the rest.
  const auto button = [&](const char* icon, const char* action, const char* tooltip, bool end) {
    GtkWidget* widget = gtk_button_new_from_icon_name(icon);
    gtk_actionable_set_action_name(GTK_ACTIONABLE(widget), action);
    gtk_widget_set_tooltip_text(widget, tooltip);
    if (end) {
      adw_header_bar_pack_end(ADW_HEADER_BAR(header), widget);
    } else {
      adw_header_bar_pack_start(ADW_HEADER_BAR(header), widget);
    }
    return widget;
  };
  button("view-refresh-symbolic", "win.sync", "Sync all accounts (R)", false);
  button("list-add-symbolic", "win.subscribe", "Subscribe to a feed (Ctrl+N)", false);
  button("go-up-symbolic", "win.previous", "Previous article (K)", false);
  button("go-down-symbolic", "win.next", "Next article (J)", false);
  spinner_ = gtk_spinner_new();
  adw_header_bar_pack_start(ADW_HEADER_BAR(header), spinner_);
  offline_ = gtk_label_new("Offline");
  gtk_widget_add_css_class(offline_, "warning");
  gtk_widget_set_tooltip_text(offline_, "Changes are kept and sent when the network is back");
  adw_header_bar_pack_start(ADW_HEADER_BAR(header), offline_);

  struct MenuEntry {
    const char* label;
    const char* action;
  };
  static const std::vector<std::vector<MenuEntry>> kMenu = {
      {{"Sync Selected Account", "win.sync-account"},
       {"Subscribe…", "win.subscribe"},
       {"Unsubscribe", "win.unsubscribe"},
       {"Move Feed…", "win.move-feed"},
       {"Rename Folder…", "win.rename-folder"}},
      {{"New Smart Folder…", "win.new-smart-folder"},
       {"Edit Smart Folder…", "win.edit-smart-folder"},
       {"Remove Smart Folder", "win.remove-smart-folder"},
       {"Save Search as Smart Folder…", "win.save-search"}},
      {{"Mark Read or Unread", "win.toggle-read"},
       {"Star or Unstar", "win.toggle-star"},
       {"Delete", "win.delete"},
       {"Open in Browser", "win.open-browser"},
       {"Copy Link", "win.copy-link"},
       {"Send by E-mail", "win.email"},
       {"Send to Read Later…", "win.send-to"}},
      {{"Add Account…", "win.add-account"},
       {"Remove Account", "win.remove-account"},
       {"Import OPML…", "win.import-opml"},
       {"Export OPML…", "win.export-opml"},
       {"Preferences", "win.preferences"}},
  };
  GMenu* menu = g_menu_new();
  for (const auto& entries : kMenu) {
    GMenu* section = g_menu_new();
    for (const auto& entry : entries) g_menu_append(section, entry.label, entry.action);
    g_menu_append_section(menu, nullptr, G_MENU_MODEL(section));
    g_object_unref(section);
  }
  GtkWidget* menuButton = gtk_menu_button_new();
  gtk_menu_button_set_icon_name(GTK_MENU_BUTTON(menuButton), "open-menu-symbolic");
  gtk_menu_button_set_menu_model(GTK_MENU_BUTTON(menuButton), G_MENU_MODEL(menu));
  adw_header_bar_pack_end(ADW_HEADER_BAR(header), menuButton);
  g_object_unref(menu);

  readableToggle_ = gtk_toggle_button_new();
  gtk_button_set_icon_name(GTK_BUTTON(readableToggle_), "format-text-plaintext-symbolic");
  gtk_widget_set_tooltip_text(readableToggle_, "Readable view: the text of the article's page");
  adw_header_bar_pack_end(ADW_HEADER_BAR(header), readableToggle_);
  readableHandler_ = g_signal_connect(readableToggle_, "toggled", G_CALLBACK(+[](GtkToggleButton* toggle, gpointer self) {
                                        static_cast<DesktopWindow*>(self)->controller_->setReadableView(
                                            gtk_toggle_button_get_active(toggle));
                                      }),
                                      this);
  button("go-jump-symbolic", "win.open-browser", "Open in browser (O)", true);
  button("user-trash-symbolic", "win.delete", "Delete (Delete)", true);
  button("starred-symbolic", "win.toggle-star", "Star or unstar (S)", true);
  button("mail-read-symbolic", "win.toggle-read", "Mark read or unread (M)", true);

  // The three panes.
  GtkWidget* outer = gtk_paned_new(GTK_ORIENTATION_HORIZONTAL);
  GtkWidget* inner = gtk_paned_new(GTK_ORIENTATION_HORIZONTAL);
  gtk_widget_set_vexpand(outer, TRUE);

  GtkWidget* sourcesScroll = gtk_scrolled_window_new();
  sources_ = GTK_LIST_BOX(gtk_list_box_new());
  gtk_widget_add_css_class(GTK_WIDGET(sources_), "navigation-sidebar");
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(sourcesScroll), GTK_WIDGET(sources_));
  gtk_widget_set_size_request(sourcesScroll, 220, -1);
  sourceHandler_ = g_signal_connect(sources_, "row-selected", G_CALLBACK(onSourceSelected), this);

  GtkWidget* middle = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  GtkWidget* tools = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  gtk_widget_set_margin_start(tools, 6);
  gtk_widget_set_margin_end(tools, 6);
  gtk_widget_set_margin_top(tools, 6);
  gtk_widget_set_margin_bottom(tools, 6);
  search_ = gtk_search_entry_new();
  gtk_widget_set_hexpand(search_, TRUE);
  gtk_widget_set_tooltip_text(search_, "Words and \"phrases\", with AND, OR, NOT and parentheses (Ctrl+F)");
  g_signal_connect(search_, "activate", G_CALLBACK(+[](GtkSearchEntry* entry, gpointer self) {
                     static_cast<DesktopWindow*>(self)->controller_->setSearch(gtk_editable_get_text(GTK_EDITABLE(entry)));
                   }),
                   this);
  g_signal_connect(search_, "stop-search", G_CALLBACK(+[](GtkSearchEntry* entry, gpointer self) {
                     gtk_editable_set_text(GTK_EDITABLE(entry), "");
                     static_cast<DesktopWindow*>(self)->controller_->setSearch("");
                   }),
                   this);
  gtk_box_append(GTK_BOX(tools), search_);
  const char* filters[] = {"All", "Unread", "Starred", nullptr};
  filter_ = gtk_drop_down_new_from_strings(filters);
  gtk_widget_set_tooltip_text(filter_, "Show all, unread or starred articles");
  g_signal_connect(filter_, "notify::selected", G_CALLBACK(+[](GObject* dropDown, GParamSpec*, gpointer self) {
                     const auto selected = gtk_drop_down_get_selected(GTK_DROP_DOWN(dropDown));
                     static_cast<DesktopWindow*>(self)->controller_->setFilter(static_cast<ArticleFilter>(selected));
                   }),
                   this);
  gtk_box_append(GTK_BOX(tools), filter_);
  gtk_box_append(GTK_BOX(middle), tools);
  GtkWidget* articlesScroll = gtk_scrolled_window_new();
  gtk_widget_set_vexpand(articlesScroll, TRUE);
  // A recycling list: only the rows on screen are widgets, so a list of thousands shows at once.
  // Its items are keys: "s<title>" for a date heading, "a<id>" for an article.
  articleItems_ = gtk_string_list_new(nullptr);
  articleSelection_ = gtk_single_selection_new(G_LIST_MODEL(g_object_ref(articleItems_)));
  gtk_single_selection_set_autoselect(articleSelection_, FALSE);
  gtk_single_selection_set_can_unselect(articleSelection_, TRUE);
  GtkListItemFactory* factory = gtk_signal_list_item_factory_new();
  g_signal_connect(factory, "setup", G_CALLBACK(onArticleSetup), this);
  g_signal_connect(factory, "bind", G_CALLBACK(onArticleBind), this);
  g_signal_connect(factory, "unbind", G_CALLBACK(onArticleUnbind), this);
  articles_ = GTK_LIST_VIEW(gtk_list_view_new(GTK_SELECTION_MODEL(articleSelection_), factory));
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(articlesScroll), GTK_WIDGET(articles_));
  articleHandler_ = g_signal_connect(articleSelection_, "notify::selected", G_CALLBACK(onArticleSelected), this);
  gtk_box_append(GTK_BOX(middle), articlesScroll);
  listSummary_ = dimLabel("");
  gtk_widget_set_margin_top(listSummary_, 4);
  gtk_widget_set_margin_bottom(listSummary_, 4);
  gtk_box_append(GTK_BOX(middle), listSummary_);
  gtk_widget_set_size_request(middle, 320, -1);

  articleStack_ = gtk_stack_new();
  emptyPage_ = adw_status_page_new();
  adw_status_page_set_icon_name(ADW_STATUS_PAGE(emptyPage_), "x-office-document-symbolic");
  gtk_stack_add_named(GTK_STACK(articleStack_), emptyPage_, "empty");
  web_ = WEBKIT_WEB_VIEW(webkit_web_view_new());
  WebKitSettings* settings = webkit_web_view_get_settings(web_);
  // The article's own scripts are refused by the page's policy; these keep the view a reader.
  webkit_settings_set_enable_developer_extras(settings, FALSE);
  webkit_settings_set_enable_html5_local_storage(settings, FALSE);
  webkit_settings_set_enable_html5_database(settings, FALSE);
  webkit_settings_set_enable_page_cache(settings, FALSE);
  webkit_settings_set_javascript_can_open_windows_automatically(settings, FALSE);
  webkit_settings_set_enable_webgl(settings, FALSE);
  g_signal_connect(web_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
  gtk_widget_set_hexpand(GTK_WIDGET(web_), TRUE);
  gtk_widget_set_vexpand(GTK_WIDGET(web_), TRUE);
  gtk_stack_add_named(GTK_STACK(articleStack_), GTK_WIDGET(web_), "article");

  gtk_paned_set_start_child(GTK_PANED(inner), middle);
  gtk_paned_set_end_child(GTK_PANED(inner), articleStack_);
  gtk_paned_set_shrink_start_child(GTK_PANED(inner), FALSE);
  gtk_paned_set_position(GTK_PANED(inner), 380);
  gtk_paned_set_start_child(GTK_PANED(outer), sourcesScroll);
  gtk_paned_set_end_child(GTK_PANED(outer), inner);
  gtk_paned_set_shrink_start_child(GTK_PANED(outer), FALSE);
  gtk_paned_set_position(GTK_PANED(outer), 250);

  toasts_ = ADW_TOAST_OVERLAY(adw_toast_overlay_new());
  adw_toast_overlay_set_child(toasts_, outer);
  gtk_widget_set_vexpand(GTK_WIDGET(toasts_), TRUE);
  gtk_box_append(GTK_BOX(root), GTK_WIDGET(toasts_));

  status_ = dimLabel("");
  gtk_label_set_xalign(GTK_LABEL(status_), 0);
  gtk_label_set_ellipsize(GTK_LABEL(status_), PANGO_ELLIPSIZE_END);
  gtk_widget_set_margin_start(status_, 8);
  gtk_widget_set_margin_top(status_, 2);
  gtk_widget_set_margin_bottom(status_, 2);
  gtk_box_append(GTK_BOX(root), status_);
  adw_application_window_set_content(ADW_APPLICATION_WINDOW(window_), root);

  // Keys go to the list and the article unless a text field has the focus.
  GtkEventController* keys = gtk_event_controller_key_new();
  gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
  g_signal_connect(keys, "key-pressed", G_CALLBACK(onKeyPressed), this);
  gtk_widget_add_controller(window_, keys);

  // The article follows the desktop's light or dark preference unless a theme is chosen.
  g_signal_connect(adw_style_manager_get_default(), "notify::dark", G_CALLBACK(+[](GObject*, GParamSpec*, gpointer self) {
                     static_cast<DesktopWindow*>(self)->renderArticle();
                   }),
                   this);
}

void DesktopWindow::addActions() {
  struct Entry {
    const char* name;
    void (*run)(DesktopWindow&);
  };
  static const Entry entries[] = {
      {"next", [](DesktopWindow& w) { w.controller_->openNext(); }},
      {"previous", [](DesktopWindow& w) { w.controller_->openPrevious(); }},
      {"page", [](DesktopWindow& w) { w.pageDownOrNext(); }},
      {"toggle-read", [](DesktopWindow& w) { w.controller_->toggleRead(); }},
      {"toggle-star", [](DesktopWindow& w) { w.controller_->toggleStar(); }},
      {"delete", [](DesktopWindow& w) { w.controller_->deleteSelected(); }},
      {"open-browser",
       [](DesktopWindow& w) {
         if (auto opened = w.controller_->openSelectedInBrowser(); !opened) w.showError(opened.error());
       }},
      {"copy-link",
       [](DesktopWindow& w) {
         if (const ArticleRow* row = w.controller_->articles().selected()) {
           gdk_clipboard_set_text(gtk_widget_get_clipboard(w.window_), row->url.c_str());
           w.showToast("Link copied");
         }
       }},
      {"email", [](DesktopWindow& w) { w.runEmail(); }},
      {"send-to", [](DesktopWindow& w) { w.runSendTo(); }},
      {"sync", [](DesktopWindow& w) { w.controller_->syncAll(); }},
      {"sync-account", [](DesktopWindow& w) { w.controller_->syncSelectedAccount(); }},
      {"search",
       [](DesktopWindow& w) {
         gtk_widget_grab_focus(w.search_);
       }},
      {"subscribe", [](DesktopWindow& w) { w.runSubscribe(""); }},
      {"unsubscribe", [](DesktopWindow& w) { w.runUnsubscribe(); }},
      {"move-feed", [](DesktopWindow& w) { w.runMoveFeed(); }},
      {"rename-folder", [](DesktopWindow& w) { w.runRenameFolder(); }},
      {"new-smart-folder", [](DesktopWindow& w) { w.runSmartFolderEditor(std::nullopt); }},
      {"edit-smart-folder",
       [](DesktopWindow& w) {
         if (w.controller_->source().kind == SourceKind::kSmartFolder) w.runSmartFolderEditor(w.controller_->source().id);
       }},
      {"remove-smart-folder", [](DesktopWindow& w) { w.runRemoveSmartFolder(); }},
      {"save-search", [](DesktopWindow& w) { w.runSaveSearch(); }},
      {"add-account", [](DesktopWindow& w) { w.runAddAccount(); }},
      {"remove-account", [](DesktopWindow& w) { w.runRemoveAccount(); }},
      {"import-opml", [](DesktopWindow& w) { w.runImportOpml(); }},
      {"export-opml", [](DesktopWindow& w) { w.runExportOpml(); }},
      {"preferences", [](DesktopWindow& w) { w.runPreferences(); }},
      {"filter-all", [](DesktopWindow& w) { gtk_drop_down_set_selected(GTK_DROP_DOWN(w.filter_), 0); }},
      {"filter-unread", [](DesktopWindow& w) { gtk_drop_down_set_selected(GTK_DROP_DOWN(w.filter_), 1); }},
      {"filter-starred", [](DesktopWindow& w) { gtk_drop_down_set_selected(GTK_DROP_DOWN(w.filter_), 2); }},
  };
  for (const auto& entry : entries) {
    GSimpleAction* action = g_simple_action_new(entry.name, nullptr);
    g_object_set_data(G_OBJECT(action), "lectern-run", reinterpret_cast<gpointer>(entry.run));
    g_signal_connect(action, "activate", G_CALLBACK(+[](GSimpleAction* action, GVariant*, gpointer self) {
                       auto run = reinterpret_cast<void (*)(DesktopWindow&)>(g_object_get_data(G_OBJECT(action), "lectern-run"));
                       run(*static_cast<DesktopWindow*>(self));
                     }),
                     this);
    g_action_map_add_action(G_ACTION_MAP(window_), G_ACTION(action));
    g_object_unref(action);
  }
  // Shortcuts with a modifier work everywhere; the single keys are handled in onKeyPressed so
  // that they never steal a letter typed into a field.
  GtkApplication* application = gtk_window_get_application(GTK_WINDOW(window_));
  const auto accel = [application](const char* action, std::initializer_list<const char*> keys) {
    std::vector<const char*> list(keys);
    list.push_back(nullptr);
    gtk_application_set_accels_for_action(application, action, list.data());
  };
  accel("win.search", {"<Control>f"});
  accel("win.subscribe", {"<Control>n"});
  accel("win.preferences", {"<Control>comma"});
  accel("win.import-opml", {"<Control>o"});
  accel("win.sync-account", {"<Control>r"});
}

void DesktopWindow::updateActions() {
  const ActionEnablement on = controller_->enabledActions();
  const auto enable = [this](const char* name, bool enabled) {
    GAction* action = g_action_map_lookup_action(G_ACTION_MAP(window_), name);
    if (action != nullptr) g_simple_action_set_enabled(G_SIMPLE_ACTION(action), enabled);
  };
  enable("next", on.next);
  enable("previous", on.previous);
  enable("page", on.next);
  enable("toggle-read", on.toggleRead);
  enable("toggle-star", on.toggleStar);
  enable("delete", on.remove);
  enable("open-browser", on.openInBrowser);
  enable("copy-link", on.copyLink);
  enable("email", on.email);
  enable("send-to", on.sendToReadLater);
  enable("sync", on.syncAll);
  enable("sync-account", on.syncSource);
  enable("unsubscribe", on.unsubscribe);
  enable("move-feed", on.moveFeed);
  enable("rename-folder", on.renameFolder);
  enable("edit-smart-folder", on.editSmartFolder);
  enable("remove-smart-folder", on.removeSmartFolder);
  enable("save-search", on.saveSearch);
  enable("remove-account", on.removeAccount);
  enable("export-opml", on.opmlExport);
  gtk_widget_set_sensitive(readableToggle_, on.readableView);
}

// ---- the sources pane ----

GtkWidget* DesktopWindow::sourceRow(const SourceNode& node, int depth) {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  gtk_widget_set_margin_start(box, 6 + depth * 16);
  GtkWidget* icon = gtk_image_new_from_icon_name(symbolicIcon(node));
  if (node.key.kind == SourceKind::kFeed) {
    // The site's icon when it is cached; otherwise it is fetched once, off the main thread.
    if (auto site = faviconSite(node.site, node.feedUrl)) {
      if (auto cached = favicons_->cachedIcon(*site)) {
        setIconFromFile(GTK_IMAGE(icon), *cached);
      } else {
        // The row may be rebuilt before the icon comes: a weak reference, not a hold on it.
        std::shared_ptr<GWeakRef> weak(new GWeakRef, [](GWeakRef* ref) {
          g_weak_ref_clear(ref);
          delete ref;
        });
        g_weak_ref_init(weak.get(), icon);
        favicons_->request(*site, [weak](std::optional<std::filesystem::path> file) {
          GObject* image = static_cast<GObject*>(g_weak_ref_get(weak.get()));
          if (image == nullptr) return;
          if (file) setIconFromFile(GTK_IMAGE(image), *file);
          g_object_unref(image);
        });
      }
    }
  }
  gtk_image_set_pixel_size(GTK_IMAGE(icon), 16);
  gtk_box_append(GTK_BOX(box), icon);
  GtkWidget* title = gtk_label_new(node.title.c_str());
  gtk_label_set_xalign(GTK_LABEL(title), 0);
  gtk_label_set_ellipsize(GTK_LABEL(title), PANGO_ELLIPSIZE_END);
  gtk_widget_set_hexpand(title, TRUE);
  if (node.key.kind == SourceKind::kAccount || node.key.kind == SourceKind::kAll) gtk_widget_add_css_class(title, "heading");
  gtk_box_append(GTK_BOX(box), title);
  if (!node.failing.empty()) {
    GtkWidget* warning = gtk_image_new_from_icon_name("dialog-warning-symbolic");
    const std::string since = node.failingSince ? fmt::format(" (failing since {})", relativeDate(node.failingSince)) : "";
    gtk_widget_set_tooltip_text(warning, (node.failing + since).c_str());
    gtk_widget_add_css_class(warning, "warning");
    gtk_box_append(GTK_BOX(box), warning);
  }
  const std::string count = node.key.kind == SourceKind::kSmartFolder ? node.badge
                            : node.unread > 0                       ? std::to_string(node.unread)
                                                                     : std::string();
  if (!count.empty()) gtk_box_append(GTK_BOX(box), dimLabel(count));
  GtkWidget* row = gtk_list_box_row_new();
  gtk_list_box_row_set_child(GTK_LIST_BOX_ROW(row), box);
  setRowInteger(row, kSourceKind, static_cast<std::int64_t>(node.key.kind));
  setRowInteger(row, kSourceId, node.key.id);
  return row;
}

void DesktopWindow::sourcesChanged() {
  const auto started = std::chrono::steady_clock::now();
  if (!controller_->article()) renderArticle();
  g_signal_handler_block(sources_, sourceHandler_);
  clearList(sources_);
  GtkWidget* selected = nullptr;
  const std::function<void(const SourceNode&, int)> add = [&](const SourceNode& node, int depth) {
    GtkWidget* row = sourceRow(node, depth);
    gtk_list_box_append(sources_, row);
    if (node.key == controller_->source()) selected = row;
    for (const auto& child : node.children) add(child, depth + 1);
  };
  for (const auto& root : controller_->sources().roots) add(root, 0);
  if (selected != nullptr) gtk_list_box_select_row(sources_, GTK_LIST_BOX_ROW(selected));
  g_signal_handler_unblock(sources_, sourceHandler_);
  updateActions();
  logDebugMessage(kLogCategory, "Sources shown in {} ms",
                  std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count());
}

void DesktopWindow::onSourceSelected(GtkListBox*, GtkListBoxRow* row, gpointer self) {
  if (row == nullptr) return;
  auto* window = static_cast<DesktopWindow*>(self);
  window->controller_->selectSource(sourceKeyOf(row));
  gtk_editable_set_text(GTK_EDITABLE(window->search_), window->controller_->search().c_str());
  window->updateActions();
}

// ---- the article list ----

namespace {

GtkWidget* part(GtkWidget* row, const char* name) { return GTK_WIDGET(g_object_get_data(G_OBJECT(row), name)); }

}  // namespace

void DesktopWindow::onArticleSetup(GtkSignalListItemFactory*, GtkListItem* item, gpointer) {
  GtkWidget* row = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  GtkWidget* heading = gtk_label_new("");
  gtk_label_set_xalign(GTK_LABEL(heading), 0);
  gtk_widget_add_css_class(heading, "heading");
  gtk_widget_set_margin_start(heading, 12);
  gtk_widget_set_margin_top(heading, 8);
  gtk_widget_set_margin_bottom(heading, 4);
  gtk_box_append(GTK_BOX(row), heading);
  GtkWidget* body = gtk_box_new(GTK_ORIENTATION_VERTICAL, 2);
  gtk_widget_set_margin_start(body, 10);
  gtk_widget_set_margin_end(body, 10);
  gtk_widget_set_margin_top(body, 6);
  gtk_widget_set_margin_bottom(body, 6);
  GtkWidget* top = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
  GtkWidget* mark = gtk_label_new("");
  gtk_widget_add_css_class(mark, "accent");
  gtk_widget_set_size_request(mark, 10, -1);
  gtk_box_append(GTK_BOX(top), mark);
  GtkWidget* title = gtk_label_new("");
  gtk_label_set_xalign(GTK_LABEL(title), 0);
  gtk_label_set_ellipsize(GTK_LABEL(title), PANGO_ELLIPSIZE_END);
  gtk_label_set_lines(GTK_LABEL(title), 2);
  gtk_label_set_wrap(GTK_LABEL(title), TRUE);
  gtk_widget_set_hexpand(title, TRUE);
  gtk_box_append(GTK_BOX(top), title);
  GtkWidget* star = gtk_label_new("★");
  gtk_box_append(GTK_BOX(top), star);
  gtk_box_append(GTK_BOX(body), top);
  GtkWidget* meta = dimLabel("");
  gtk_label_set_xalign(GTK_LABEL(meta), 0);
  gtk_label_set_ellipsize(GTK_LABEL(meta), PANGO_ELLIPSIZE_END);
  gtk_widget_set_margin_start(meta, 16);
  gtk_widget_add_css_class(meta, "caption");
  gtk_box_append(GTK_BOX(body), meta);
  gtk_box_append(GTK_BOX(row), body);
  g_object_set_data(G_OBJECT(row), "heading", heading);
  g_object_set_data(G_OBJECT(row), "body", body);
  g_object_set_data(G_OBJECT(row), "mark", mark);
  g_object_set_data(G_OBJECT(row), "title", title);
  g_object_set_data(G_OBJECT(row), "star", star);
  g_object_set_data(G_OBJECT(row), "meta", meta);
  gtk_list_item_set_child(item, row);
}

void DesktopWindow::onArticleBind(GtkSignalListItemFactory*, GtkListItem* item, gpointer self) {
  auto* window = static_cast<DesktopWindow*>(self);
  GtkWidget* row = gtk_list_item_get_child(item);
  const std::string key = gtk_string_object_get_string(GTK_STRING_OBJECT(gtk_list_item_get_item(item)));
  const bool heading = !key.empty() && key[0] == 's';
  gtk_list_item_set_selectable(item, !heading);
  gtk_list_item_set_activatable(item, !heading);
  gtk_widget_set_visible(part(row, "heading"), heading);
  gtk_widget_set_visible(part(row, "body"), !heading);
  if (heading) {
    gtk_label_set_text(GTK_LABEL(part(row, "heading")), key.c_str() + 1);
    return;
  }
  const std::int64_t id = std::strtoll(key.c_str() + 1, nullptr, 10);
  window->boundRows_[id] = row;
  if (const ArticleRow* article = window->controller_->articles().row(id)) fillArticleRow(row, *article);
}

void DesktopWindow::onArticleUnbind(GtkSignalListItemFactory*, GtkListItem* item, gpointer self) {
  auto* window = static_cast<DesktopWindow*>(self);
  GtkWidget* row = gtk_list_item_get_child(item);
  std::erase_if(window->boundRows_, [row](const auto& entry) { return entry.second == row; });
}

void DesktopWindow::fillArticleRow(GtkWidget* row, const ArticleRow& article) {
  gtk_label_set_text(GTK_LABEL(part(row, "mark")), article.unread ? "●" : "");
  GtkWidget* title = part(row, "title");
  gtk_label_set_text(GTK_LABEL(title), article.title.empty() ? "(untitled)" : article.title.c_str());
  if (article.unread) {
    gtk_widget_add_css_class(title, "heading");
  } else {
    gtk_widget_remove_css_class(title, "heading");
  }
  gtk_widget_set_visible(part(row, "star"), article.starred);
  gtk_label_set_text(GTK_LABEL(part(row, "meta")), fmt::format("{} · {}", article.feed, relativeDate(article.date)).c_str());
  const std::string accessible = fmt::format("{}{}{}", article.unread ? "Unread: " : "", article.title,
                                             article.starred ? " (starred)" : "");
  gtk_widget_set_tooltip_text(row, accessible.c_str());
}

void DesktopWindow::articlesChanged() {
  const auto started = std::chrono::steady_clock::now();
  const ArticleList& list = controller_->articles();
  std::vector<std::string> keys;
  keys.reserve(list.rows().size() + 16);
  articlePositions_.clear();
  for (const auto& section : list.sections(environment_.clock().now())) {
    keys.push_back("s" + section.title);
    for (size_t i = section.first; i < section.first + section.count; ++i) {
      articlePositions_[list.rows()[i].id] = static_cast<guint>(keys.size());
      keys.push_back("a" + std::to_string(list.rows()[i].id));
    }
  }
  std::vector<const char*> strings;
  strings.reserve(keys.size() + 1);
  for (const auto& key : keys) strings.push_back(key.c_str());
  strings.push_back(nullptr);
  g_signal_handler_block(articleSelection_, articleHandler_);
  gtk_string_list_splice(articleItems_, 0, g_list_model_get_n_items(G_LIST_MODEL(articleItems_)), strings.data());
  showSelectedArticle();
  g_signal_handler_unblock(articleSelection_, articleHandler_);
  gtk_label_set_text(GTK_LABEL(listSummary_), list.summary().c_str());
  updateActions();
  logDebugMessage(kLogCategory, "Article list shown: {} rows in {} ms", list.rows().size(),
                  std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count());
}

void DesktopWindow::showSelectedArticle() {
  const ArticleRow* selected = controller_->articles().selected();
  auto found = selected ? articlePositions_.find(selected->id) : articlePositions_.end();
  const guint position = found == articlePositions_.end() ? GTK_INVALID_LIST_POSITION : found->second;
  if (gtk_single_selection_get_selected(articleSelection_) != position) {
    g_signal_handler_block(articleSelection_, articleHandler_);
    gtk_single_selection_set_selected(articleSelection_, position);
    g_signal_handler_unblock(articleSelection_, articleHandler_);
  }
  if (position != GTK_INVALID_LIST_POSITION) {
    gtk_widget_activate_action(GTK_WIDGET(articles_), "list.scroll-to-item", "u", position);
  }
}

void DesktopWindow::articleRowChanged(std::int64_t id) {
  auto found = boundRows_.find(id);
  const ArticleRow* article = controller_->articles().row(id);
  if (found != boundRows_.end() && article != nullptr) fillArticleRow(found->second, *article);
  gtk_label_set_text(GTK_LABEL(listSummary_), controller_->articles().summary().c_str());
  updateActions();
}

std::vector<std::int64_t> DesktopWindow::articleIds() const {
  std::vector<std::int64_t> ids;
  const guint count = g_list_model_get_n_items(G_LIST_MODEL(articleItems_));
  for (guint i = 0; i < count; ++i) {
    const char* key = gtk_string_list_get_string(articleItems_, i);
    if (key != nullptr && key[0] == 'a') ids.push_back(std::strtoll(key + 1, nullptr, 10));
  }
  return ids;
}

GtkWidget* DesktopWindow::articleRowWidget(std::int64_t id) const {
  auto found = boundRows_.find(id);
  return found == boundRows_.end() ? nullptr : found->second;
}

void DesktopWindow::onArticleSelected(GObject*, GParamSpec*, gpointer self) {
  auto* window = static_cast<DesktopWindow*>(self);
  const guint position = gtk_single_selection_get_selected(window->articleSelection_);
  if (position == GTK_INVALID_LIST_POSITION) return;
  const char* key = gtk_string_list_get_string(window->articleItems_, position);
  if (key == nullptr || key[0] != 'a') return;
  window->controller_->openArticle(std::strtoll(key + 1, nullptr, 10));
  window->updateActions();
}

// ---- the article ----

void DesktopWindow::articleChanged() {
  showSelectedArticle();
  g_signal_handler_block(readableToggle_, readableHandler_);
  gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(readableToggle_), controller_->readableView());
  g_signal_handler_unblock(readableToggle_, readableHandler_);
  renderArticle();
  updateActions();
}

void DesktopWindow::renderArticle() {
  const auto& article = controller_->article();
  if (!article) {
    articleHtml_.clear();
    // A library with nothing to read yet says how to begin.
    const bool welcome = !controller_->enabledActions().syncAll && controller_->articles().rows().empty() &&
                         !controller_->syncing();
    adw_status_page_set_title(ADW_STATUS_PAGE(emptyPage_), welcome ? "Welcome to Lectern" : "No Article Selected");
    adw_status_page_set_description(
        ADW_STATUS_PAGE(emptyPage_),
        welcome ? "Subscribe to a site with Ctrl+N, import your subscriptions with Ctrl+O, or add an account "
                  "from the menu."
                : "J and K move through the list, Space pages and moves on");
    gtk_stack_set_visible_child_name(GTK_STACK(articleStack_), "empty");
    return;
  }
  UserDefaults& defaults = environment_.defaults();
  ArticleStyle style;
  style.theme = articleTheme(defaults.stringForKey(kArticleTheme), adw_style_manager_get_dark(adw_style_manager_get_default()));
  style.fontFamily = defaults.stringForKey(kArticleFontFamily);
  style.fontSize = static_cast<int>(defaults.integerForKey(kArticleFontSize));
  ArticlePage page;
  page.title = article->row.title;
  page.feed = article->row.feed;
  page.author = article->author;
  page.date = article->row.date;
  page.url = article->row.url;
  page.enclosures = article->enclosures;
  const bool readable = controller_->readableView() && controller_->readableHtml();
  page.bodyHtml = readable ? *controller_->readableHtml() : article->html;
  page.readable = readable;
  const std::filesystem::path folder = article->imageFolder;
  articleHtml_ = renderArticleHtml(page, style, [folder](std::string_view url) -> std::optional<std::filesystem::path> {
    std::error_code error;
    auto path = BookmarkImage(std::string(url)).cachedImagePath(folder);
    if (std::filesystem::exists(path, error)) return path;
    return std::nullopt;
  });
  // The view paints the theme's background before the page arrives: no white flash in the dark.
  GdkRGBA background;
  if (gdk_rgba_parse(&background, articleThemeColors(style.theme).background.c_str())) {
    webkit_web_view_set_background_color(web_, &background);
  }
  // Loaded from the image cache's folder, so that cached pictures may be shown; the page's own
  // base address resolves its links.
  webkit_web_view_load_html(web_, articleHtml_.c_str(), (fileUrl(folder) + "/").c_str());
  gtk_stack_set_visible_child_name(GTK_STACK(articleStack_), "article");
}

gboolean DesktopWindow::onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
                                       gpointer self) {
  auto* window = static_cast<DesktopWindow*>(self);
  if (type != WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION && type != WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
    return FALSE;
  }
  WebKitNavigationAction* action =
      webkit_navigation_policy_decision_get_navigation_action(WEBKIT_NAVIGATION_POLICY_DECISION(decision));
  WebKitURIRequest* request = webkit_navigation_action_get_request(action);
  const std::string uri = webkit_uri_request_get_uri(request);
  const bool userAction = webkit_navigation_action_is_user_gesture(action) ||
                          webkit_navigation_action_get_navigation_type(action) == WEBKIT_NAVIGATION_TYPE_LINK_CLICKED;
  // The page itself (loaded from our HTML) and the players' frames load; a click opens the
  // default browser; nothing else navigates the view.
  if (type == WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION && !userAction) {
    const bool ownPage = uri.starts_with("file:") || uri == "about:blank";
    const bool subframe = webkit_navigation_action_get_frame_name(action) != nullptr;
    if (ownPage || subframe) return FALSE;
  }
  webkit_policy_decision_ignore(decision);
  // A link to a place in the article itself (it resolves against the article's address) scrolls
  // the view there instead of leaving for the browser.
  if (const auto& article = window->controller_->article(); userAction && article && !article->row.url.empty()) {
    const std::string& page = article->row.url;
    const std::string base = page.substr(0, page.find('#'));
    if (uri.size() > base.size() + 1 && uri.compare(0, base.size(), base) == 0 && uri[base.size()] == '#') {
      window->scrollToFragment(uri.substr(base.size() + 1));
      return TRUE;
    }
  }
  if (userAction && (uri.starts_with("http:") || uri.starts_with("https:") || uri.starts_with("mailto:"))) {
    if (auto opened = openInBrowser(uri); !opened) window->showError(opened.error());
  }
  return TRUE;
}

void DesktopWindow::scrollToFragment(const std::string& fragment) {
  // The fragment goes in as a JSON string, so nothing in it can be read as script.
  gchar* id = g_uri_unescape_string(fragment.c_str(), nullptr);
  const std::string script = fmt::format(
      "(function(){{var e=document.getElementById({0})||document.getElementsByName({0})[0];"
      "if(e)e.scrollIntoView();}})()",
      nlohmann::json(id ? std::string(id) : fragment).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
  g_free(id);
  webkit_web_view_evaluate_javascript(web_, script.c_str(), -1, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void DesktopWindow::pageDownOrNext() {
  if (!controller_->article()) {
    controller_->openNextUnread();
    return;
  }
  // Pages the article; at its end, the next unread article.
  const char* script =
      "(function(){var e=document.scrollingElement||document.body;"
      "if(e.scrollTop+window.innerHeight>=e.scrollHeight-2)return 'end';"
      "window.scrollBy(0,window.innerHeight*0.9);return 'paged';})()";
  std::weak_ptr<bool> alive = alive_;
  auto* token = new std::weak_ptr<bool>(alive);
  webkit_web_view_evaluate_javascript(
      web_, script, -1, nullptr, nullptr, nullptr,
      +[](GObject* view, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::weak_ptr<bool>> alive(static_cast<std::weak_ptr<bool>*>(data));
        GError* error = nullptr;
        JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(view), result, &error);
        const auto flag = alive->lock();
        if (!flag || !*flag) {
          if (value) g_object_unref(value);
          g_clear_error(&error);
          return;
        }
        auto* window = static_cast<DesktopWindow*>(g_object_get_data(view, "lectern-window"));
        bool atEnd = true;  // a page that cannot say how far it is read moves on
        if (value != nullptr) {
          char* text = jsc_value_to_string(value);
          atEnd = text != nullptr && std::string_view(text) == "end";
          g_free(text);
          g_object_unref(value);
        }
        g_clear_error(&error);
        if (atEnd && window != nullptr) window->controller_->openNextUnread();
      },
      token);
  g_object_set_data(G_OBJECT(web_), "lectern-window", this);
}

gboolean DesktopWindow::onKeyPressed(GtkEventControllerKey*, guint keyval, guint, GdkModifierType state, gpointer self) {
  return static_cast<DesktopWindow*>(self)->handleKey(keyval, state) ? TRUE : FALSE;
}

bool DesktopWindow::handleKey(guint keyval, GdkModifierType state) {
  if ((state & (GDK_CONTROL_MASK | GDK_ALT_MASK | GDK_SUPER_MASK)) != 0) return false;
  if (dialog_ != nullptr || focusIsEditable(GTK_WINDOW(window_))) return false;
  const auto activate = [this](const char* name) {
    GAction* action = g_action_map_lookup_action(G_ACTION_MAP(window_), name);
    if (action != nullptr && g_action_get_enabled(action)) g_action_activate(action, nullptr);
    return true;
  };
  switch (keyval) {
    case GDK_KEY_j:
    case GDK_KEY_Down:
      return activate("next");
    case GDK_KEY_k:
    case GDK_KEY_Up:
      return activate("previous");
    case GDK_KEY_space:
      return activate("page");
    case GDK_KEY_m:
      return activate("toggle-read");
    case GDK_KEY_s:
      return activate("toggle-star");
    case GDK_KEY_o:
      return activate("open-browser");
    case GDK_KEY_r:
      return activate("sync");
    case GDK_KEY_Delete:
      return activate("delete");
    case GDK_KEY_slash:
      return activate("search");
    default:
      return false;
  }
}

// ---- status ----

void DesktopWindow::statusChanged() {
  gtk_label_set_text(GTK_LABEL(status_), controller_->statusText().c_str());
  if (controller_->syncing()) {
    gtk_spinner_start(GTK_SPINNER(spinner_));
  } else {
    gtk_spinner_stop(GTK_SPINNER(spinner_));
  }
  gtk_widget_set_visible(offline_, !controller_->online());
  // Each new failure once as a toast, with what to do about it.
  if (const auto& error = controller_->lastError()) {
    const std::string text = error->recoverySuggestion.empty()
                                 ? error->message()
                                 : fmt::format("{}\n{}", error->message(), error->recoverySuggestion);
    if (text != shownError_) {
      shownError_ = text;
      showToast(text);
    }
    controller_->clearError();
  }
  updateActions();
}

void DesktopWindow::showError(const Error& error) {
  showToast(error.recoverySuggestion.empty() ? error.message()
                                             : fmt::format("{}\n{}", error.message(), error.recoverySuggestion));
}

void DesktopWindow::showToast(const std::string& text) {
  gchar* escaped = g_markup_escape_text(text.c_str(), -1);
  AdwToast* toast = adw_toast_new(escaped);
  g_free(escaped);
  adw_toast_set_timeout(toast, 6);
  adw_toast_overlay_add_toast(toasts_, toast);
  logInfo(kLogCategory, "{}", text);
}

DesktopController::Done DesktopWindow::showingErrors() {
  return [this](std::optional<Error> error) {
    if (error) showError(*error);
  };
}

void DesktopWindow::showDialog(GtkWidget* dialog) {
  dialog_ = dialog;
  g_signal_connect(dialog, "destroy", G_CALLBACK(+[](GtkWidget* widget, gpointer self) {
                     auto* window = static_cast<DesktopWindow*>(self);
                     if (window->dialog_ == widget) window->dialog_ = nullptr;
                   }),
                   this);
  gtk_window_present(GTK_WINDOW(dialog));
}

Result<void> DesktopWindow::saveScreenshot(const std::filesystem::path& file) const {
  GtkWidget* widget = window_;
  const int width = gtk_widget_get_width(widget);
  const int height = gtk_widget_get_height(widget);
  if (width <= 0 || height <= 0) return lectern::fail(kLecternErrorDomain, 1, "The window is not on screen");
  GdkPaintable* paintable = gtk_widget_paintable_new(widget);
  GtkSnapshot* snapshot = gtk_snapshot_new();
  gdk_paintable_snapshot(paintable, snapshot, width, height);
  GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
  g_object_unref(paintable);
  if (node == nullptr) return lectern::fail(kLecternErrorDomain, 1, "The window drew nothing");
  GskRenderer* renderer = gtk_native_get_renderer(GTK_NATIVE(widget));
  graphene_rect_t bounds = GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width), static_cast<float>(height));
  GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &bounds);
  gsk_render_node_unref(node);
  const bool saved = gdk_texture_save_to_png(texture, file.c_str());
  g_object_unref(texture);
  if (!saved) return lectern::fail(kLecternErrorDomain, 1, fmt::format("Failed to write {}", file.string()));
  return {};
}

}  // namespace lectern::desktop
