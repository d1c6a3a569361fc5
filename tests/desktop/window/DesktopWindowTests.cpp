// The real window on a test library, under an X server: driven through its actions and keys,
// checked on its widgets and on the library.

#include <adwaita.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "../DesktopTestLibrary.h"
#include "support/TestSupport.h"
#include "app/desktop/window/DesktopApp.h"
#include "app/desktop/window/DesktopWindow.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/SmartFolder.h"

namespace lectern::desktop {
namespace {

// Runs GLib's loop (and with it the main queue) until `done` or 20 s.
bool pumpUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (!g_main_context_iteration(nullptr, FALSE)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::vector<GtkListBoxRow*> rowsOf(GtkListBox* box) {
  std::vector<GtkListBoxRow*> rows;
  for (GtkWidget* child = gtk_widget_get_first_child(GTK_WIDGET(box)); child; child = gtk_widget_get_next_sibling(child)) {
    if (GTK_IS_LIST_BOX_ROW(child)) rows.push_back(GTK_LIST_BOX_ROW(child));
  }
  return rows;
}

// The texts of the labels inside a widget, in order.
std::string textOf(GtkWidget* widget) {
  std::string out;
  if (GTK_IS_LABEL(widget)) out += gtk_label_get_text(GTK_LABEL(widget)) + std::string(" ");
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child)) {
    out += textOf(child);
  }
  return out;
}

// As a click on one of the dialog's buttons: the response, then the dialog closes.
void answer(GtkWidget* dialog, const char* response) {
  adw_message_dialog_response(ADW_MESSAGE_DIALOG(dialog), response);
  gtk_window_close(GTK_WINDOW(dialog));
}

void collectEntries(GtkWidget* widget, std::vector<GtkWidget*>& out) {
  if (GTK_IS_ENTRY(widget)) out.push_back(widget);
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child)) {
    collectEntries(child, out);
  }
}

GtkWidget* firstEntry(GtkWidget* widget) {
  if (GTK_IS_ENTRY(widget)) return widget;
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child)) {
    if (GtkWidget* found = firstEntry(child)) return found;
  }
  return nullptr;
}

GtkImage* firstImage(GtkWidget* widget) {
  if (GTK_IS_IMAGE(widget)) return GTK_IMAGE(widget);
  for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child)) {
    if (GtkImage* found = firstImage(child)) return found;
  }
  return nullptr;
}

// A 2x2 PNG.
const unsigned char kIconBytes[] = {
    0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00,
    0x02, 0x00, 0x00, 0x00, 0x02, 0x08, 0x06, 0x00, 0x00, 0x00, 0x72, 0xB6, 0x0D, 0x24, 0x00, 0x00, 0x00, 0x11, 0x49,
    0x44, 0x41, 0x54, 0x78, 0x9C, 0x63, 0xD8, 0xEA, 0xAA, 0xFD, 0x1F, 0x84, 0x19, 0x60, 0x0C, 0x00, 0x4B, 0x9A, 0x08,
    0x91, 0xEF, 0x06, 0x43, 0x4A, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};
const std::string kIcon(reinterpret_cast<const char*>(kIconBytes), sizeof kIconBytes);

class DesktopWindowTest : public ::testing::Test {
 protected:
  // The window tests run offline (nothing reaches a network) unless a test serves what it needs.
  virtual bool online() const { return false; }
  // Changes the test library before the window reads it.
  virtual void prepare(ObjectContext&) {}

  void SetUp() override {
    if (!gtk_init_check()) GTEST_SKIP() << "No X server could be opened (run under xvfb-run, or set DISPLAY)";
    adw_init();
    application_ = gtk_application_new("com.quillhq.Lectern.Tests", G_APPLICATION_NON_UNIQUE);
    GError* error = nullptr;
    ASSERT_TRUE(g_application_register(G_APPLICATION(application_), nullptr, &error)) << (error ? error->message : "");
    DesktopSession::Options options;
    options.app.home = temp_.path();
    options.app.offline = !online();
    options.schedule = false;
    // The library is filled before the window reads it.
    {
      auto environment = AppEnvironment::create(options.app);
      ASSERT_TRUE(environment);
      auto manager = (*environment)->dataManager();
      ASSERT_TRUE(manager);
      auto context = (*manager)->managedObjectContext();
      ASSERT_TRUE(context);
      library_ = fixtures::fillTestLibrary(**context, (*environment)->clock().now());
      prepare(**context);
      library_.account.reset();
      library_.fruit.reset();
      library_.news.reset();
    }
    auto session = DesktopSession::open(application_, options);
    ASSERT_TRUE(session) << session.error().message();
    session_ = std::move(*session);
    window().present();
    ASSERT_TRUE(pumpUntil([this] { return rowsOf(window().sourcesList()).size() >= 5; }));
  }

  void TearDown() override {
    session_.reset();
    if (application_) g_object_unref(application_);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }

  DesktopWindow& window() { return session_->window(); }

  ObjectContext& context() { return **(*session_->environment().dataManager())->managedObjectContext(); }

  std::shared_ptr<Bookmark> stored(std::int64_t id) {
    auto bookmark = Bookmark::bookmarkWithLocalId(context(), id);
    if (!bookmark || !*bookmark) throw std::runtime_error("no such article");
    return *bookmark;
  }

  GtkListBoxRow* sourceRow(const std::string& title) {
    for (auto* row : rowsOf(window().sourcesList())) {
      if (textOf(GTK_WIDGET(row)).starts_with(title + " ")) return row;
    }
    return nullptr;
  }

  void activate(const char* action) {
    GAction* found = g_action_map_lookup_action(G_ACTION_MAP(window().window()), action);
    ASSERT_NE(found, nullptr) << action;
    ASSERT_TRUE(g_action_get_enabled(found)) << action << " is disabled";
    g_action_activate(found, nullptr);
  }

  bool idle() {
    return pumpUntil([this] { return window().controller().loading() == 0; });
  }

  lectern::test::TempDir temp_;
  GtkApplication* application_ = nullptr;
  fixtures::TestLibrary library_;
  std::unique_ptr<DesktopSession> session_;
};

TEST_F(DesktopWindowTest, ReadsAFeedWithTheKeyboardAndEveryChangeReachesTheLibrary) {
  // The sources pane: the account, its folder and feeds, counts and the failing feed's marker.
  const std::string fruit = textOf(GTK_WIDGET(sourceRow("Fruit")));
  EXPECT_NE(fruit.find("2"), std::string::npos) << fruit;
  ASSERT_NE(sourceRow("News"), nullptr);
  ASSERT_NE(sourceRow("Food"), nullptr);

  gtk_list_box_select_row(window().sourcesList(), sourceRow("Fruit"));
  ASSERT_TRUE(pumpUntil([this] { return window().articleIds().size() == 2; }));
  EXPECT_EQ(window().articleIds(), (std::vector<std::int64_t>{library_.apple, library_.pear}));
  ASSERT_TRUE(pumpUntil([this] { return window().articleRowWidget(library_.apple) != nullptr; }));
  EXPECT_NE(textOf(window().articleRowWidget(library_.apple)).find("Apple harvest"), std::string::npos);
  EXPECT_NE(textOf(GTK_WIDGET(window().articlesList())).find("Today"), std::string::npos);

  // j opens the first article in the web view and marks it read.
  EXPECT_TRUE(window().handleKey(GDK_KEY_j, GdkModifierType{}));
  ASSERT_TRUE(pumpUntil([this] { return window().articleHtml().find("Apple harvest") != std::string::npos; }));
  EXPECT_NE(window().articleHtml().find("Orchards report a record year."), std::string::npos);
  ASSERT_TRUE(idle());
  EXPECT_TRUE(stored(library_.apple)->is_archived());

  // s stars it, m marks it unread again: in the row and in the library.
  EXPECT_TRUE(window().handleKey(GDK_KEY_s, GdkModifierType{}));
  EXPECT_TRUE(window().handleKey(GDK_KEY_m, GdkModifierType{}));
  ASSERT_TRUE(idle());
  EXPECT_TRUE(stored(library_.apple)->is_favorited());
  EXPECT_FALSE(stored(library_.apple)->is_archived());
  const char* tooltip = gtk_widget_get_tooltip_text(window().articleRowWidget(library_.apple));
  ASSERT_NE(tooltip, nullptr);
  EXPECT_STREQ(tooltip, "Unread: Apple harvest (starred)");

  // k at the top stays; Space at the end of the short article moves on to the next unread one.
  EXPECT_TRUE(window().handleKey(GDK_KEY_k, GdkModifierType{}));
  ASSERT_TRUE(pumpUntil([this] { return !webkit_web_view_is_loading(window().webView()); }));
  EXPECT_TRUE(window().handleKey(GDK_KEY_space, GdkModifierType{}));
  ASSERT_TRUE(pumpUntil([this] { return window().articleHtml().find("Pear season") != std::string::npos; }));

  // r asks for a sync; offline, the window says so with what to do.
  EXPECT_TRUE(window().handleKey(GDK_KEY_r, GdkModifierType{}));
  EXPECT_NE(window().statusText().find("offline"), std::string::npos) << window().statusText();

  // A text field keeps its letters.
  gtk_widget_grab_focus(GTK_WIDGET(window().searchEntry()));
  EXPECT_FALSE(window().handleKey(GDK_KEY_m, GdkModifierType{}));

  // Delete removes it here and in the library, and the list moves on.
  gtk_widget_grab_focus(GTK_WIDGET(window().articlesList()));
  EXPECT_TRUE(window().handleKey(GDK_KEY_Delete, GdkModifierType{}));
  ASSERT_TRUE(idle());
  EXPECT_EQ(window().articleIds().size(), 1u);
  EXPECT_FALSE(Bookmark::bookmarkWithLocalId(context(), library_.pear).value_or(nullptr));
}

TEST_F(DesktopWindowTest, ASearchIsSavedAsASmartFolder) {
  gtk_editable_set_text(window().searchEntry(), "apple OR votes");
  g_signal_emit_by_name(window().searchEntry(), "activate");
  ASSERT_TRUE(pumpUntil([this] { return window().articleIds().size() == 2 && window().controller().loading() == 0; }));

  activate("save-search");
  ASSERT_NE(window().dialog(), nullptr);
  GtkWidget* entry = firstEntry(adw_message_dialog_get_extra_child(ADW_MESSAGE_DIALOG(window().dialog())));
  ASSERT_NE(entry, nullptr);
  gtk_editable_set_text(GTK_EDITABLE(entry), "Apples and votes");
  answer(window().dialog(), "ok");
  ASSERT_TRUE(pumpUntil([this] { return sourceRow("Apples and votes") != nullptr; }));
  ASSERT_TRUE(idle());
  // The new folder is selected and shows what the search found.
  EXPECT_EQ(window().controller().source().kind, SourceKind::kSmartFolder);
  EXPECT_EQ(window().articleIds().size(), 2u);
  ObjectContext::FetchRequest request;
  auto folders = context().fetch<SmartFolder>(request);
  ASSERT_TRUE(folders);
  bool found = false;
  for (const auto& folder : *folders) found = found || folder->title() == "Apples and votes";
  EXPECT_TRUE(found);
}

TEST_F(DesktopWindowTest, TheSmartFolderEditorAddsAFolderFromItsRules) {
  activate("new-smart-folder");
  ASSERT_NE(window().dialog(), nullptr);
  std::vector<GtkWidget*> entries;
  collectEntries(adw_message_dialog_get_extra_child(ADW_MESSAGE_DIALOG(window().dialog())), entries);
  // The title, then the first rule's value ("Title contains …").
  ASSERT_EQ(entries.size(), 2u);
  gtk_editable_set_text(GTK_EDITABLE(entries[0]), "Pears");
  gtk_editable_set_text(GTK_EDITABLE(entries[1]), "pear");
  answer(window().dialog(), "ok");
  ASSERT_TRUE(pumpUntil([this] { return sourceRow("Pears") != nullptr; }));
  ASSERT_TRUE(pumpUntil([this] {
    return window().controller().source().kind == SourceKind::kSmartFolder && window().controller().loading() == 0 &&
           window().articleIds() == std::vector<std::int64_t>{library_.pear};
  }));
}

TEST_F(DesktopWindowTest, TheAccountAndPreferencesDialogsOpenAndClose) {
  // Adding an account offline is refused with what to do, and nothing is added.
  activate("add-account");
  ASSERT_NE(window().dialog(), nullptr);
  std::vector<GtkWidget*> entries;
  collectEntries(adw_message_dialog_get_extra_child(ADW_MESSAGE_DIALOG(window().dialog())), entries);
  ASSERT_GE(entries.size(), 2u);
  answer(window().dialog(), "ok");  // the built-in reader is first; it exists already
  pumpUntil([this] { return window().dialog() == nullptr; });
  EXPECT_EQ(window().controller().accounts().size(), 1u);

  activate("preferences");
  ASSERT_NE(window().dialog(), nullptr);
  EXPECT_TRUE(ADW_IS_PREFERENCES_WINDOW(window().dialog()));
  gtk_window_close(GTK_WINDOW(window().dialog()));
  pumpUntil([this] { return window().dialog() == nullptr; });
  EXPECT_EQ(window().dialog(), nullptr);
}

TEST_F(DesktopWindowTest, AFeedLinkFromABrowserOpensTheSubscribeDialog) {
  session_->open("feed://example.org/rss.xml");
  ASSERT_NE(window().dialog(), nullptr);
  GtkWidget* address = firstEntry(adw_message_dialog_get_extra_child(ADW_MESSAGE_DIALOG(window().dialog())));
  ASSERT_NE(address, nullptr);
  EXPECT_STREQ(gtk_editable_get_text(GTK_EDITABLE(address)), "http://example.org/rss.xml");
  answer(window().dialog(), "cancel");
  pumpUntil([this] { return window().dialog() == nullptr; });
  // Anything else is not a subscription: no dialog.
  session_->open("javascript:alert(1)");
  EXPECT_EQ(window().dialog(), nullptr);
}

TEST_F(DesktopWindowTest, TheMainWindowIsDrawnAndSavedAsAScreenshot) {
  gtk_list_box_select_row(window().sourcesList(), sourceRow("All articles"));
  ASSERT_TRUE(pumpUntil([this] { return window().articleIds().size() == 3; }));
  window().controller().openArticle(library_.apple);
  ASSERT_TRUE(pumpUntil([this] { return !window().articleHtml().empty(); }));
  // Give the web view a moment to paint the page.
  ASSERT_TRUE(pumpUntil([this] { return !webkit_web_view_is_loading(window().webView()); }));
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  pumpUntil([&] { return std::chrono::steady_clock::now() > until; });
  const std::filesystem::path file = LECTERN_SCREENSHOT;
  auto saved = window().saveScreenshot(file);
  ASSERT_TRUE(saved) << saved.error().message();
  std::error_code error;
  EXPECT_GT(std::filesystem::file_size(file, error), 10'000u);
  std::fprintf(stderr, "Screenshot: %s\n", file.c_str());
}

// A local site with a page naming its icon and its feed: what the window does with the network.
class DesktopWindowOnlineTest : public DesktopWindowTest {
 protected:
  bool online() const override { return true; }
  void prepare(ObjectContext& context) override {
    server_.Get("/", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(
          "<html><head><link rel=\"icon\" href=\"/news.png\">"
          "<link rel=\"alternate\" type=\"application/rss+xml\" title=\"Site news\" href=\"/feed.xml\">"
          "</head><body>News</body></html>",
          "text/html");
    });
    server_.Get("/feed.xml", [this](const httplib::Request&, httplib::Response& response) {
      const std::string site = "http://127.0.0.1:" + std::to_string(port_) + "/";
      response.set_content("<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>Site news</title><link>" + site +
                               "</link><item><title>Launch day</title><link>" + site +
                               "launch</link><guid>launch</guid><description>&lt;p&gt;We launched.&lt;/p&gt;"
                               "</description><pubDate>Wed, 25 Nov 2026 10:00:00 GMT</pubDate></item></channel></rss>",
                           "application/rss+xml");
    });
    server_.Get("/news.png", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(kIcon, "image/png");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    library_.news->setFeed_link("http://127.0.0.1:" + std::to_string(port_) + "/");
    ASSERT_TRUE(context.save());
  }
  void TearDown() override {
    DesktopWindowTest::TearDown();
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }

  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

TEST_F(DesktopWindowOnlineTest, AFeedShowsItsSitesIcon) {
  ASSERT_TRUE(pumpUntil([this] {
    GtkListBoxRow* row = sourceRow("News");
    GtkImage* image = row ? firstImage(GTK_WIDGET(row)) : nullptr;
    return image != nullptr && gtk_image_get_storage_type(image) == GTK_IMAGE_PAINTABLE;
  }));
  // Cached: the next window finds it without asking the site.
  const auto folder = temp_.path() / "cache" / "Favicons";
  std::error_code error;
  EXPECT_FALSE(std::filesystem::is_empty(folder, error));
  // Fruit's site is unknown (no link, an unreachable feed address): it keeps the feed symbol.
  GtkImage* fruit = firstImage(GTK_WIDGET(sourceRow("Fruit")));
  ASSERT_NE(fruit, nullptr);
  EXPECT_EQ(gtk_image_get_storage_type(fruit), GTK_IMAGE_ICON_NAME);
}

TEST_F(DesktopWindowOnlineTest, SubscribingFindsTheFeedPutsItInAFolderAndSyncsIt) {
  activate("subscribe");
  ASSERT_NE(window().dialog(), nullptr);
  GtkWidget* box = adw_message_dialog_get_extra_child(ADW_MESSAGE_DIALOG(window().dialog()));
  GtkWidget* address = firstEntry(box);
  ASSERT_NE(address, nullptr);
  gtk_editable_set_text(GTK_EDITABLE(address), ("http://127.0.0.1:" + std::to_string(port_) + "/").c_str());
  // The folder chooser offers the account's folders; a new name makes one.
  GtkWidget* chooser = nullptr;
  for (GtkWidget* child = gtk_widget_get_first_child(box); child; child = gtk_widget_get_next_sibling(child)) {
    if (GTK_IS_COMBO_BOX(child)) chooser = child;
  }
  ASSERT_NE(chooser, nullptr);
  gtk_editable_set_text(GTK_EDITABLE(gtk_combo_box_get_child(GTK_COMBO_BOX(chooser))), "Local");
  answer(window().dialog(), "ok");
  // Discovery, the subscription, then a sync of the account bring the feed's article.
  ASSERT_TRUE(pumpUntil([this] { return sourceRow("Site news") != nullptr && sourceRow("Local") != nullptr; }));
  ASSERT_TRUE(pumpUntil([this] {
    return !window().controller().syncing() && window().controller().loading() == 0 &&
           textOf(GTK_WIDGET(sourceRow("Site news"))).find("1") != std::string::npos;
  })) << textOf(GTK_WIDGET(sourceRow("Site news")));
  gtk_list_box_select_row(window().sourcesList(), sourceRow("Site news"));
  ASSERT_TRUE(pumpUntil([this] { return window().articleIds().size() == 1; }));
  ASSERT_TRUE(pumpUntil([this] { return window().articleRowWidget(window().articleIds()[0]) != nullptr; }));
  EXPECT_NE(textOf(window().articleRowWidget(window().articleIds()[0])).find("Launch day"), std::string::npos);
}

}  // namespace
}  // namespace lectern::desktop
