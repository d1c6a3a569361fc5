#pragma once

#include <adwaita.h>
#include <gtk/gtk.h>
#include <webkit/webkit.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/desktop/DesktopController.h"
#include "core/Error.h"

namespace lectern {
class AppEnvironment;
class QKApplicationController;
}  // namespace lectern

namespace lectern::desktop {

class FaviconCache;

// The main window: sources, articles and the article in three panes, a header bar with the
// actions, and the dialogs. It shows what the controller holds and hands every action to it.
class DesktopWindow final : public DesktopController::View {
 public:
  DesktopWindow(GtkApplication* application, AppEnvironment& environment, QKApplicationController& app);
  ~DesktopWindow() override;
  DesktopWindow(const DesktopWindow&) = delete;
  DesktopWindow& operator=(const DesktopWindow&) = delete;

  GtkWindow* window() const { return GTK_WINDOW(window_); }
  DesktopController& controller() { return *controller_; }
  void present();

  // The `feed:` links a browser hands over, and any address to subscribe to: the subscribe dialog.
  void subscribeTo(const std::string& address);

  // A key pressed in the window (outside a text field): j/k, the arrows, Space, m, s, o, r,
  // Delete and /. Answers whether it was one of them.
  bool handleKey(guint keyval, GdkModifierType state);

  // For tests: the widgets that show the models.
  GtkListBox* sourcesList() const { return sources_; }
  GtkListView* articlesList() const { return articles_; }
  // The articles the list holds, in order, and the widget showing one (while it is on screen).
  std::vector<std::int64_t> articleIds() const;
  GtkWidget* articleRowWidget(std::int64_t id) const;
  GtkEditable* searchEntry() const { return GTK_EDITABLE(search_); }
  WebKitWebView* webView() const { return web_; }
  const std::string& statusText() const;
  // The page last handed to the web view.
  const std::string& articleHtml() const { return articleHtml_; }
  // The dialog on screen, if any (tests answer it).
  GtkWidget* dialog() const { return dialog_; }
  // The window as it is drawn now, as a PNG file.
  Result<void> saveScreenshot(const std::filesystem::path& file) const;

 private:
  // DesktopController::View
  void sourcesChanged() override;
  void articlesChanged() override;
  void articleRowChanged(std::int64_t id) override;
  void articleChanged() override;
  void statusChanged() override;

  void build(GtkApplication* application);
  void addActions();
  GtkWidget* sourceRow(const SourceNode& node, int depth);
  static void fillArticleRow(GtkWidget* row, const ArticleRow& article);
  // Selects (and scrolls to) the controller's selected article.
  void showSelectedArticle();
  void updateActions();
  void renderArticle();
  void pageDownOrNext();
  void scrollToFragment(const std::string& fragment);
  void showError(const Error& error);
  void showToast(const std::string& text);
  // Shows a dialog as the window's one dialog.
  void showDialog(GtkWidget* dialog);
  // A completion that shows an error, if there is one.
  DesktopController::Done showingErrors();

  // Dialogs.
  void runSubscribe(const std::string& address);
  void chooseFeed(std::int64_t account, std::optional<std::string> folder, std::vector<QKFeedLinkItem> feeds);
  void runRenameFolder();
  void runMoveFeed();
  void runUnsubscribe();
  void runRemoveAccount();
  void runImportOpml();
  void runExportOpml();
  void runSaveSearch();
  void runSmartFolderEditor(std::optional<std::int64_t> id);
  void runRemoveSmartFolder();
  void runSendTo();
  void runEmail();
  void runPreferences();
  void runAddAccount();

  static void onSourceSelected(GtkListBox* box, GtkListBoxRow* row, gpointer self);
  static void onArticleSelected(GObject* selection, GParamSpec*, gpointer self);
  static void onArticleSetup(GtkSignalListItemFactory* factory, GtkListItem* item, gpointer self);
  static void onArticleBind(GtkSignalListItemFactory* factory, GtkListItem* item, gpointer self);
  static void onArticleUnbind(GtkSignalListItemFactory* factory, GtkListItem* item, gpointer self);
  static gboolean onKeyPressed(GtkEventControllerKey* controller, guint keyval, guint keycode, GdkModifierType state,
                               gpointer self);
  static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
                                 gpointer self);

  AppEnvironment& environment_;
  QKApplicationController& app_;
  std::unique_ptr<FaviconCache> favicons_;
  std::unique_ptr<DesktopController> controller_;

  GtkWidget* window_ = nullptr;
  AdwToastOverlay* toasts_ = nullptr;
  GtkListBox* sources_ = nullptr;
  GtkListView* articles_ = nullptr;
  GtkStringList* articleItems_ = nullptr;       // one key per row (held)
  GtkSingleSelection* articleSelection_ = nullptr;
  GtkWidget* search_ = nullptr;
  GtkWidget* filter_ = nullptr;
  GtkWidget* listSummary_ = nullptr;
  GtkWidget* articleStack_ = nullptr;
  GtkWidget* emptyPage_ = nullptr;
  WebKitWebView* web_ = nullptr;
  GtkWidget* status_ = nullptr;
  GtkWidget* spinner_ = nullptr;
  GtkWidget* offline_ = nullptr;
  GtkWidget* readableToggle_ = nullptr;
  GtkWidget* dialog_ = nullptr;
  gulong sourceHandler_ = 0;
  gulong articleHandler_ = 0;
  gulong readableHandler_ = 0;
  std::map<std::int64_t, guint> articlePositions_;  // by article id
  std::map<std::int64_t, GtkWidget*> boundRows_;     // the rows on screen, by article id
  std::string articleHtml_;
  std::string shownError_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace lectern::desktop
