// Accounts and preferences: adding an account (a password or the browser), and the preferences
// window (the user defaults and each account's own).

#include <fmt/format.h>

#include "accounts/AccountCommands.h"
#include "app/AppEnvironment.h"
#include "app/desktop/ArticleTemplate.h"
#include "app/desktop/window/DesktopWindow.h"
#include "core/UserDefaults.h"
#include "store/Account.h"
#include "store/QKDataManager.h"

namespace lectern::desktop {
namespace {

struct ServiceChoice {
  const char* service;
  const char* title;
  bool browser;  // signs in through the browser
};

constexpr ServiceChoice kServices[] = {
    {"localrss", "Built-in reader (feeds fetched by Lectern)", false},
    {"feedbin", "Feedbin", false},
    {"feedly", "Feedly (signs in through the browser)", true},
    {"fever", "Fever (give the server's address)", false},
    {"feedwrangler", "Feed Wrangler", false},
    {"newsblur", "NewsBlur", false},
    {"instapaper", "Instapaper", false},
    {"pocket", "Pocket (signs in through the browser)", true},
    {"pinboard", "Pinboard", false},
};

std::optional<std::string> optionalText(GtkWidget* editable) {
  std::string text = gtk_editable_get_text(GTK_EDITABLE(editable));
  if (text.empty()) return std::nullopt;
  return text;
}

// A combo row over the choices of an index preference ("7 days"), bound to `key`.
GtkWidget* indexRow(UserDefaults& defaults, std::string_view key, const char* title) {
  const KnownDefault* known = knownDefault(key);
  GtkStringList* names = gtk_string_list_new(nullptr);
  std::vector<std::int64_t> values;
  const std::int64_t current = defaults.integerForKey(key);
  guint selected = 0;
  if (known != nullptr) {
    for (const auto& choice : known->choices) {
      // Indexes that mean the same as another (kept for old libraries) are not offered twice.
      if (std::find(values.begin(), values.end(), choice.value) != values.end()) continue;
      bool repeated = false;
      for (guint i = 0; i < values.size(); ++i) {
        if (std::string_view(gtk_string_list_get_string(names, i)) == choice.meaning) repeated = true;
      }
      if (repeated && choice.value != current) continue;
      if (choice.value == current) selected = static_cast<guint>(values.size());
      gtk_string_list_append(names, std::string(choice.meaning).c_str());
      values.push_back(choice.value);
    }
  }
  GtkWidget* row = adw_combo_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title);
  adw_combo_row_set_model(ADW_COMBO_ROW(row), G_LIST_MODEL(names));
  g_object_unref(names);
  adw_combo_row_set_selected(ADW_COMBO_ROW(row), selected);
  struct Binding {
    UserDefaults* defaults;
    std::string key;
    std::vector<std::int64_t> values;
  };
  auto* binding = new Binding{&defaults, std::string(key), std::move(values)};
  g_signal_connect_data(
      row, "notify::selected", G_CALLBACK(+[](GObject* row, GParamSpec*, gpointer data) {
        auto* binding = static_cast<Binding*>(data);
        const guint index = adw_combo_row_get_selected(ADW_COMBO_ROW(row));
        if (index < binding->values.size()) (void)binding->defaults->setInteger(binding->key, binding->values[index]);
      }),
      binding, +[](gpointer data, GClosure*) { delete static_cast<Binding*>(data); }, GConnectFlags{});
  return row;
}

GtkWidget* switchRow(const char* title, const char* subtitle, bool active, std::function<void(bool)> changed) {
  GtkWidget* row = adw_action_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(row), title);
  if (subtitle != nullptr) adw_action_row_set_subtitle(ADW_ACTION_ROW(row), subtitle);
  GtkWidget* toggle = gtk_switch_new();
  gtk_switch_set_active(GTK_SWITCH(toggle), active);
  gtk_widget_set_valign(toggle, GTK_ALIGN_CENTER);
  adw_action_row_add_suffix(ADW_ACTION_ROW(row), toggle);
  adw_action_row_set_activatable_widget(ADW_ACTION_ROW(row), toggle);
  auto* held = new std::function<void(bool)>(std::move(changed));
  g_signal_connect_data(
      toggle, "notify::active", G_CALLBACK(+[](GObject* toggle, GParamSpec*, gpointer data) {
        (*static_cast<std::function<void(bool)>*>(data))(gtk_switch_get_active(GTK_SWITCH(toggle)));
      }),
      held, +[](gpointer data, GClosure*) { delete static_cast<std::function<void(bool)>*>(data); }, GConnectFlags{});
  return row;
}

constexpr const char* kThemeValues[] = {"system", "light", "dark", "sepia"};

constexpr const char* kSyncIntervals[] = {"Manually", "Every 5 minutes", "Every 10 minutes", "Every 30 minutes",
                                          "Every hour", nullptr};

}  // namespace

void DesktopWindow::runAddAccount() {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
  GtkStringList* names = gtk_string_list_new(nullptr);
  for (const auto& choice : kServices) gtk_string_list_append(names, choice.title);
  GtkWidget* service = gtk_drop_down_new(G_LIST_MODEL(names), nullptr);  // takes the list
  gtk_box_append(GTK_BOX(box), service);
  GtkWidget* username = gtk_entry_new();
  gtk_entry_set_placeholder_text(GTK_ENTRY(username), "Username or e-mail");
  gtk_box_append(GTK_BOX(box), username);
  GtkWidget* password = gtk_password_entry_new();
  gtk_password_entry_set_show_peek_icon(GTK_PASSWORD_ENTRY(password), TRUE);
  gtk_box_append(GTK_BOX(box), password);
  GtkWidget* endpoint = gtk_entry_new();
  gtk_entry_set_placeholder_text(GTK_ENTRY(endpoint), "Server address (self-hosted; optional)");
  gtk_box_append(GTK_BOX(box), endpoint);
  GtkWidget* dialog = adw_message_dialog_new(window(), "Add Account",
                                             "The service checks the sign-in once; the password is kept in the "
                                             "desktop's keyring, never in the library.");
  adw_message_dialog_add_responses(ADW_MESSAGE_DIALOG(dialog), "cancel", "Cancel", "ok", "Add", nullptr);
  adw_message_dialog_set_response_appearance(ADW_MESSAGE_DIALOG(dialog), "ok", ADW_RESPONSE_SUGGESTED);
  adw_message_dialog_set_default_response(ADW_MESSAGE_DIALOG(dialog), "ok");
  adw_message_dialog_set_close_response(ADW_MESSAGE_DIALOG(dialog), "cancel");
  adw_message_dialog_set_extra_child(ADW_MESSAGE_DIALOG(dialog), box);
  struct Fields {
    DesktopWindow* window;
    GtkWidget *service, *username, *password, *endpoint;
  };
  auto* fields = new Fields{this, service, username, password, endpoint};
  // The fields a service does not take are hidden.
  const auto showFields = +[](GObject*, GParamSpec*, gpointer data) {
    auto* fields = static_cast<Fields*>(data);
    const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(fields->service));
    const bool local = index == 0;
    const bool browser = index < std::size(kServices) && kServices[index].browser;
    gtk_widget_set_visible(fields->username, !local && !browser);
    gtk_widget_set_visible(fields->password, !local && !browser);
    gtk_widget_set_visible(fields->endpoint, !local);
  };
  g_signal_connect(service, "notify::selected", G_CALLBACK(showFields), fields);
  showFields(nullptr, nullptr, fields);
  g_signal_connect_data(
      dialog, "response", G_CALLBACK(+[](AdwMessageDialog*, const char* response, gpointer data) {
        auto* fields = static_cast<Fields*>(data);
        if (std::string_view(response) != "ok") return;
        const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(fields->service));
        if (index >= std::size(kServices)) return;
        DesktopWindow* window = fields->window;
        const auto done = [window](std::optional<Error> error) {
          if (error) return window->showError(*error);
          window->showToast("Account added");
        };
        if (kServices[index].browser) {
          window->showToast("Sign in in your browser; Lectern waits for it to come back.");
          window->controller_->signInWithBrowser(
              kServices[index].service, optionalText(fields->endpoint),
              [window](const std::string& url) { window->showToast("If no browser opened, visit " + url); }, done);
          return;
        }
        NewAccount account;
        account.service = kServices[index].service;
        if (index != 0) {
          account.username = optionalText(fields->username);
          account.password = optionalText(fields->password);
          account.endpoint = optionalText(fields->endpoint);
        }
        window->controller_->addAccount(std::move(account), done);
      }),
      fields, +[](gpointer data, GClosure*) { delete static_cast<Fields*>(data); }, GConnectFlags{});
  showDialog(dialog);
}

void DesktopWindow::runPreferences() {
  UserDefaults& defaults = environment_.defaults();
  GtkWidget* preferences = adw_preferences_window_new();
  gtk_window_set_transient_for(GTK_WINDOW(preferences), window());
  gtk_window_set_modal(GTK_WINDOW(preferences), TRUE);

  GtkWidget* general = adw_preferences_page_new();
  adw_preferences_page_set_title(ADW_PREFERENCES_PAGE(general), "General");
  adw_preferences_page_set_icon_name(ADW_PREFERENCES_PAGE(general), "preferences-system-symbolic");
  GtkWidget* sync = adw_preferences_group_new();
  adw_preferences_group_set_title(ADW_PREFERENCES_GROUP(sync), "Sync");
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(sync), indexRow(defaults, kConcurrentSyncOperationsIndex, "Accounts synced at once"));
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(sync), indexRow(defaults, kDaysKeepFeedReadItemsIndex, "Keep read feed articles"));
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(sync), indexRow(defaults, kNotificationCenterIndex, "Notify of new articles"));
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(general), ADW_PREFERENCES_GROUP(sync));

  GtkWidget* reading = adw_preferences_group_new();
  adw_preferences_group_set_title(ADW_PREFERENCES_GROUP(reading), "Articles");
  const char* themes[] = {"Follow the desktop", "Light", "Dark", "Sepia", nullptr};
  const auto& themeValues = kThemeValues;
  GtkStringList* themeNames = gtk_string_list_new(themes);
  GtkWidget* theme = adw_combo_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(theme), "Theme");
  adw_combo_row_set_model(ADW_COMBO_ROW(theme), G_LIST_MODEL(themeNames));
  g_object_unref(themeNames);
  const std::string currentTheme = defaults.stringForKey(kArticleTheme);
  for (guint i = 0; i < std::size(themeValues); ++i) {
    if (currentTheme == themeValues[i]) adw_combo_row_set_selected(ADW_COMBO_ROW(theme), i);
  }
  g_signal_connect(theme, "notify::selected", G_CALLBACK(+[](GObject* row, GParamSpec*, gpointer self) {
                     const auto& values = kThemeValues;
                     auto* window = static_cast<DesktopWindow*>(self);
                     const guint index = adw_combo_row_get_selected(ADW_COMBO_ROW(row));
                     if (index < std::size(values)) (void)window->environment_.defaults().setString(kArticleTheme, values[index]);
                     window->renderArticle();
                   }),
                   this);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(reading), theme);
  GtkWidget* font = adw_entry_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(font), "Font family (empty: the desktop's)");
  gtk_editable_set_text(GTK_EDITABLE(font), defaults.stringForKey(kArticleFontFamily).c_str());
  g_signal_connect(font, "changed", G_CALLBACK(+[](GtkEditable* editable, gpointer self) {
                     auto* window = static_cast<DesktopWindow*>(self);
                     (void)window->environment_.defaults().setString(kArticleFontFamily, gtk_editable_get_text(editable));
                     window->renderArticle();
                   }),
                   this);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(reading), font);
  GtkWidget* sizeRow = adw_action_row_new();
  adw_preferences_row_set_title(ADW_PREFERENCES_ROW(sizeRow), "Font size");
  GtkWidget* size = gtk_spin_button_new_with_range(kMinimumArticleFontSize, kMaximumArticleFontSize, 1);
  gtk_spin_button_set_value(GTK_SPIN_BUTTON(size), static_cast<double>(defaults.integerForKey(kArticleFontSize)));
  gtk_widget_set_valign(size, GTK_ALIGN_CENTER);
  g_signal_connect(size, "value-changed", G_CALLBACK(+[](GtkSpinButton* spin, gpointer self) {
                     auto* window = static_cast<DesktopWindow*>(self);
                     (void)window->environment_.defaults().setInteger(kArticleFontSize, gtk_spin_button_get_value_as_int(spin));
                     window->renderArticle();
                   }),
                   this);
  adw_action_row_add_suffix(ADW_ACTION_ROW(sizeRow), size);
  adw_preferences_group_add(ADW_PREFERENCES_GROUP(reading), sizeRow);
  adw_preferences_page_add(ADW_PREFERENCES_PAGE(general), ADW_PREFERENCES_GROUP(reading));
  adw_preferences_window_add(ADW_PREFERENCES_WINDOW(preferences), ADW_PREFERENCES_PAGE(general));

  // Each account's own: how often it syncs, whether at start-up, whether pictures are cached.
  GtkWidget* accountsPage = adw_preferences_page_new();
  adw_preferences_page_set_title(ADW_PREFERENCES_PAGE(accountsPage), "Accounts");
  adw_preferences_page_set_icon_name(ADW_PREFERENCES_PAGE(accountsPage), "system-users-symbolic");
  for (const auto& choice : controller_->accounts()) {
    auto manager = environment_.dataManager();
    if (!manager) break;
    auto context = (*manager)->managedObjectContext();
    if (!context) break;
    auto account = (*context)->existingObject<Account>(ObjectId{Entity::kAccount, choice.id});
    if (!account || !*account) continue;
    std::shared_ptr<Account> held = *account;
    GtkWidget* group = adw_preferences_group_new();
    adw_preferences_group_set_title(ADW_PREFERENCES_GROUP(group), choice.title.c_str());
    GtkStringList* intervals = gtk_string_list_new(kSyncIntervals);
    GtkWidget* interval = adw_combo_row_new();
    adw_preferences_row_set_title(ADW_PREFERENCES_ROW(interval), "Sync");
    adw_combo_row_set_model(ADW_COMBO_ROW(interval), G_LIST_MODEL(intervals));
    g_object_unref(intervals);
    const auto current = held->preferences().integerForKey("autoSyncIntervalIndex");
    adw_combo_row_set_selected(ADW_COMBO_ROW(interval), current >= 0 && current <= 4 ? static_cast<guint>(current) : 0);
    auto* intervalAccount = new std::shared_ptr<Account>(held);
    g_signal_connect_data(
        interval, "notify::selected", G_CALLBACK(+[](GObject* row, GParamSpec*, gpointer data) {
          auto& account = *static_cast<std::shared_ptr<Account>*>(data);
          (void)setAccountPreference(*account, "autoSyncIntervalIndex",
                                     std::to_string(adw_combo_row_get_selected(ADW_COMBO_ROW(row))));
        }),
        intervalAccount, +[](gpointer data, GClosure*) { delete static_cast<std::shared_ptr<Account>*>(data); },
        GConnectFlags{});
    adw_preferences_group_add(ADW_PREFERENCES_GROUP(group), interval);
    adw_preferences_group_add(ADW_PREFERENCES_GROUP(group),
                              switchRow("Sync when Lectern starts", nullptr, held->preferences().boolForKey("syncOnStart"),
                                        [held](bool on) { (void)setAccountPreference(*held, "syncOnStart", on ? "yes" : "no"); }));
    adw_preferences_group_add(
        ADW_PREFERENCES_GROUP(group),
        switchRow("Keep pictures for reading offline", nullptr, held->preferences().boolForKey("cacheImages"),
                  [held](bool on) { (void)setAccountPreference(*held, "cacheImages", on ? "yes" : "no"); }));
    adw_preferences_page_add(ADW_PREFERENCES_PAGE(accountsPage), ADW_PREFERENCES_GROUP(group));
  }
  adw_preferences_window_add(ADW_PREFERENCES_WINDOW(preferences), ADW_PREFERENCES_PAGE(accountsPage));
  showDialog(preferences);
}

}  // namespace lectern::desktop
