#include "app/desktop/window/DesktopApp.h"

#include <adwaita.h>

#include <fmt/format.h>

#include "accounts/AccountCommands.h"
#include "app/QKApplicationController.h"
#include "app/desktop/PaneModels.h"
#include "app/desktop/window/DesktopWindow.h"
#include "app/desktop/window/GlibMainQueue.h"
#include "core/Log.h"
#include "net/BrowserSignIn.h"
#include "services/feedly/FeedlySignIn.h"
#include "services/pocket/PocketSignIn.h"
#include "store/QKDataManager.h"
#include "sync/SyncEnvironment.h"
#include "sync/UserNotificationPresenter.h"

namespace lectern::desktop {

// New articles at the end of a pass, through the desktop's notification service; only while the
// window is not the one in front (the sync manager asks).
class DesktopNotifications final : public UserNotificationPresenter {
 public:
  explicit DesktopNotifications(GApplication* application) : application_(application) {}
  void setWindow(GtkWindow* window) { window_ = window; }

  bool isApplicationActive() const override { return window_ != nullptr && gtk_window_is_active(window_); }

  void deliverNotification(std::string_view title, std::string_view subtitle, std::string_view text) override {
    GNotification* notification = g_notification_new(std::string(title).c_str());
    std::string body(subtitle);
    if (!text.empty()) body += (body.empty() ? "" : "\n") + std::string(text);
    g_notification_set_body(notification, body.c_str());
    g_notification_set_default_action(notification, "app.activate");
    g_application_send_notification(application_, "new-articles", notification);
    g_object_unref(notification);
    logInfo("DesktopNotifications", "{}: {}", title, body);
  }

 private:
  GApplication* application_;
  GtkWindow* window_ = nullptr;
};

Result<std::unique_ptr<DesktopSession>> DesktopSession::open(GtkApplication* application, const Options& options) {
  std::unique_ptr<DesktopSession> session(new DesktopSession());
  auto environment = AppEnvironment::create(options.app);
  if (!environment) return fail(environment.error());
  session->environment_ = std::move(*environment);
  AppEnvironment& env = *session->environment_;
  session->queue_ = std::make_unique<GlibMainQueue>(env.mainQueue());
  auto manager = env.dataManager();
  if (!manager) return fail(manager.error());
  session->notifications_ = std::make_unique<DesktopNotifications>(G_APPLICATION(application));
  SyncEnvironment sync{**manager, env.defaults(), env.mainQueue(), env.reachability(), env.clock(), env.network()};
  QKApplicationController::Options appOptions;
  appOptions.presenter = session->notifications_.get();
  session->app_ = std::make_unique<QKApplicationController>(sync, appOptions);
  if (auto ready = session->app_->setupApp(); !ready) return fail(ready.error());
  // Between passes there is time to index what each pass stored.
  session->app_->syncManager().setCatchesUpSearchIndex(true);
  session->window_ = std::make_unique<DesktopWindow>(application, env, *session->app_);
  session->notifications_->setWindow(session->window_->window());
  if (options.schedule) session->app_->startScheduling();
  return session;
}

DesktopSession::~DesktopSession() {
  if (app_) app_->shutdown();
  window_.reset();
  app_.reset();
  notifications_.reset();
  if (environment_) environment_->mainQueue().shutdown();
  queue_.reset();
}

void DesktopSession::open(const std::string& uri) {
  if (uri.rfind("lectern:", 0) == 0) {
    // The answer of a browser sign-in: to the sign-in that waits for it (ours or a command's).
    auto handed = deliverToWaitingSignIn(signInSocketPath(environment_->paths().applicationFolder), uri);
    if (handed && *handed) return;
    SignInEnvironment signIn{environment_->defaults(), environment_->network(), environment_->clock(),
                             environment_->paths()};
    auto signedIn = isPocketSignInAnswer(uri) ? finishPendingPocketSignIn(signIn, uri) : finishPendingFeedlySignIn(signIn, uri);
    if (!signedIn) {
      logError("DesktopSession", "{}", signedIn.error().message());
      return;
    }
    window_->controller().addAccount(std::move(*signedIn), [](std::optional<Error> error) {
      if (error) logError("DesktopSession", "{}", error->message());
    });
    return;
  }
  if (auto address = subscriptionAddressOfUri(uri)) {
    window_->present();
    window_->subscribeTo(*address);
  }
}

namespace {

struct Program {
  DesktopSession::Options options;
  std::unique_ptr<DesktopSession> session;
  int exitCode = 0;
};

DesktopSession* ensureSession(GApplication* application, Program& program) {
  if (program.session) return program.session.get();
  auto session = DesktopSession::open(GTK_APPLICATION(application), program.options);
  if (!session) {
    const Error& error = session.error();
    fmt::print(stderr, "lectern-desktop: {}\n", error.message());
    if (!error.recoverySuggestion.empty()) fmt::print(stderr, "{}\n", error.recoverySuggestion);
    program.exitCode = 1;
    g_application_quit(application);
    return nullptr;
  }
  program.session = std::move(*session);
  return program.session.get();
}

}  // namespace

int runDesktop(int argc, char** argv) {
  Program program;
  if (const char* offline = std::getenv("LECTERN_OFFLINE"); offline && std::string_view(offline) == "1") {
    program.options.app.offline = true;
  }
  AdwApplication* application =
      adw_application_new("com.quillhq.Lectern", static_cast<GApplicationFlags>(G_APPLICATION_HANDLES_OPEN));
  g_application_set_option_context_summary(G_APPLICATION(application),
                                           "Lectern: read feeds and saved articles in a window.");
  g_application_set_option_context_description(
      G_APPLICATION(application),
      "Keys: j/k next and previous, Space page then next unread, m read/unread, s star, o open in the browser,\n"
      "r sync, Delete delete, Ctrl+F search, Ctrl+N subscribe. Addresses given (feed:, http:) open the subscribe "
      "dialog.");
  const GOptionEntry entries[] = {
      {"home", 0, 0, G_OPTION_ARG_FILENAME, nullptr, "Keep the library, settings and logs under DIR", "DIR"},
      {"verbose", 'v', 0, G_OPTION_ARG_NONE, nullptr, "Mirror the log to stderr", nullptr},
      {"offline", 0, 0, G_OPTION_ARG_NONE, nullptr, "Treat the internet as unreachable", nullptr},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  g_application_add_main_option_entries(G_APPLICATION(application), entries);
  g_signal_connect(application, "handle-local-options", G_CALLBACK(+[](GApplication*, GVariantDict* options, gpointer data) {
                     auto& program = *static_cast<Program*>(data);
                     const char* home = nullptr;
                     if (g_variant_dict_lookup(options, "home", "^&ay", &home) && home != nullptr) {
                       program.options.app.home = std::filesystem::path(home);
                     }
                     gboolean flag = FALSE;
                     if (g_variant_dict_lookup(options, "verbose", "b", &flag)) program.options.app.verbose = flag;
                     if (g_variant_dict_lookup(options, "offline", "b", &flag) && flag) program.options.app.offline = true;
                     return -1;  // go on
                   }),
                   &program);
  g_signal_connect(application, "activate", G_CALLBACK(+[](GApplication* application, gpointer data) {
                     if (auto* session = ensureSession(application, *static_cast<Program*>(data))) session->window().present();
                   }),
                   &program);
  g_signal_connect(application, "open", G_CALLBACK(+[](GApplication* application, GFile** files, gint count, gchar*,
                                                       gpointer data) {
                     auto* session = ensureSession(application, *static_cast<Program*>(data));
                     if (session == nullptr) return;
                     session->window().present();
                     for (gint i = 0; i < count; ++i) {
                       char* uri = g_file_get_uri(files[i]);
                       session->open(uri);
                       g_free(uri);
                     }
                   }),
                   &program);
  g_signal_connect(application, "shutdown", G_CALLBACK(+[](GApplication*, gpointer data) {
                     static_cast<Program*>(data)->session.reset();
                   }),
                   &program);
  const int status = g_application_run(G_APPLICATION(application), argc, argv);
  program.session.reset();
  g_object_unref(application);
  return program.exitCode != 0 ? program.exitCode : status;
}

}  // namespace lectern::desktop
