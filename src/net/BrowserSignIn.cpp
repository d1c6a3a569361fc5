#include "net/BrowserSignIn.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <openssl/rand.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>
#include <vector>

#include "core/Strings.h"
#include "net/URLError.h"

extern char** environ;

namespace lectern {
namespace {

constexpr std::string_view kSignInFailed = "Failed to sign in";
// A request or a URL longer than this is no sign-in answer.
constexpr size_t kMaximumRequestBytes = 16 * 1024;
constexpr std::chrono::seconds kReadTimeout{5};

Error systemError(std::string_view what) {
  return Error::make(kLecternErrorDomain, errno, kSignInFailed,
                     fmt::format("{}: {}", what, std::strerror(errno)));
}

void closeQuietly(int fd) {
  if (fd >= 0) ::close(fd);
}

// Reads until `done` says the bytes are complete, the peer closes, or the time is up.
std::string readUntil(int fd, const std::function<bool(const std::string&)>& done) {
  std::string bytes;
  const auto deadline = std::chrono::steady_clock::now() + kReadTimeout;
  std::array<char, 4096> buffer{};
  while (bytes.size() < kMaximumRequestBytes && !done(bytes)) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd poller{fd, POLLIN, 0};
    if (::poll(&poller, 1, static_cast<int>(left.count())) <= 0) break;
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n <= 0) break;
    bytes.append(buffer.data(), static_cast<size_t>(n));
  }
  return bytes;
}

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

bool fillAddress(sockaddr_un& address, const std::filesystem::path& path) {
  address = {};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return true;
}

std::vector<std::string> words(std::string_view text) {
  std::vector<std::string> out;
  std::string current;
  for (char c : text) {
    if (c == ' ' || c == '\t') {
      if (!current.empty()) out.push_back(std::exchange(current, {}));
    } else {
      current += c;
    }
  }
  if (!current.empty()) out.push_back(current);
  return out;
}

// Starts `arguments` without waiting for it; a thread reaps it when it ends.
bool spawn(std::vector<std::string> arguments) {
  if (arguments.empty()) return false;
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
  std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
  return true;
}

}  // namespace

RedirectListener::RedirectListener(int fd, std::string redirectURI, std::filesystem::path socketPath,
                                   std::string loopbackPath)
    : fd_(fd),
      redirectURI_(std::move(redirectURI)),
      socketPath_(std::move(socketPath)),
      loopbackPath_(std::move(loopbackPath)) {}

RedirectListener::~RedirectListener() {
  closeQuietly(fd_);
  if (!socketPath_.empty()) {
    std::error_code ignored;
    std::filesystem::remove(socketPath_, ignored);
  }
}

Result<std::unique_ptr<RedirectListener>> RedirectListener::forScheme(const std::filesystem::path& socketPath,
                                                                      std::string redirectURI) {
  sockaddr_un address{};
  if (!fillAddress(address, socketPath)) {
    return fail(kLecternErrorDomain, 0, kSignInFailed,
                fmt::format("The socket path {} is too long.", socketPath.string()));
  }
  std::error_code ignored;
  std::filesystem::create_directories(socketPath.parent_path(), ignored);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(systemError("socket"));
  const mode_t previous = ::umask(0077);  // only this user may hand a sign-in its answer
  int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  if (bound != 0 && errno == EADDRINUSE) {
    // A live listener answers; a file left by a sign-in that died does not and is replaced.
    if (auto live = deliverToWaitingSignIn(socketPath, ""); live && *live) {
      ::umask(previous);
      closeQuietly(fd);
      return fail(kLecternErrorDomain, EADDRINUSE, kSignInFailed,
                  "Another sign-in is waiting for its browser: finish it or stop it first.");
    }
    std::filesystem::remove(socketPath, ignored);
    bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  }
  ::umask(previous);
  if (bound != 0 || ::listen(fd, 4) != 0) {
    auto error = systemError(fmt::format("listening at {}", socketPath.string()));
    closeQuietly(fd);
    return fail(error);
  }
  return std::unique_ptr<RedirectListener>(new RedirectListener(fd, std::move(redirectURI), socketPath, {}));
}

Result<std::unique_ptr<RedirectListener>> RedirectListener::onLoopback(std::string_view path) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(systemError("socket"));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof(address);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(fd, 4) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    auto error = systemError("listening on 127.0.0.1");
    closeQuietly(fd);
    return fail(error);
  }
  const std::string uri = fmt::format("http://127.0.0.1:{}{}", ntohs(address.sin_port), path);
  return std::unique_ptr<RedirectListener>(new RedirectListener(fd, uri, {}, std::string(path)));
}

Result<std::string> RedirectListener::waitForURL(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd poller{fd_, POLLIN, 0};
    const int ready = ::poll(&poller, 1, static_cast<int>(std::min<std::int64_t>(left.count(), 60'000)));
    if (ready < 0 && errno != EINTR) return fail(systemError("waiting for the browser"));
    if (ready <= 0) continue;
    const int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    if (!socketPath_.empty()) {
      auto url = acceptSchemeURL(client);
      closeQuietly(client);
      if (url && !url->empty()) return url;  // an empty one was a liveness probe
      continue;
    }
    auto url = acceptLoopbackRequest(client);
    closeQuietly(client);
    if (url) return *url;
  }
  return fail(makeURLError(URLErrorCode::kTimedOut, redirectURI_,
                           "No answer came back from the browser in time; run the command again to retry."));
}

Result<std::string> RedirectListener::acceptSchemeURL(int client) {
  std::string line =
      readUntil(client, [](const std::string& bytes) { return bytes.find('\n') != std::string::npos; });
  if (auto end = line.find('\n'); end != std::string::npos) line.resize(end);
  writeAll(client, "ok\n");
  return trim(line);
}

std::optional<std::string> RedirectListener::acceptLoopbackRequest(int client) {
  const std::string request =
      readUntil(client, [](const std::string& bytes) { return bytes.find("\r\n\r\n") != std::string::npos; });
  // "GET /feedly/auth?code=...&state=... HTTP/1.1"
  const auto firstSpace = request.find(' ');
  const auto secondSpace = firstSpace == std::string::npos ? firstSpace : request.find(' ', firstSpace + 1);
  const std::string method = request.substr(0, firstSpace);
  const std::string target = secondSpace == std::string::npos
                                 ? std::string()
                                 : request.substr(firstSpace + 1, secondSpace - firstSpace - 1);
  const std::string path = target.substr(0, target.find('?'));
  if (method != "GET" || path != loopbackPath_) {
    writeAll(client, "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    return std::nullopt;
  }
  const std::string page =
      "<!doctype html><title>Lectern</title><p>Lectern has the answer of the sign-in. You can close this "
      "page.</p>";
  writeAll(client,
           fmt::format("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: {}\r\n"
                       "Connection: close\r\n\r\n{}",
                       page.size(), page));
  // "http://127.0.0.1:PORT" and the target as the browser asked for it.
  return redirectURI_.substr(0, redirectURI_.size() - loopbackPath_.size()) + target;
}

std::filesystem::path signInSocketPath(const std::filesystem::path& applicationFolder) {
  std::filesystem::path folder;
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR");
      runtime && *runtime && std::filesystem::is_directory(runtime)) {
    folder = runtime;
  } else {
    folder = std::filesystem::path("/tmp") / fmt::format("lectern-{}", ::getuid());
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    ::chmod(folder.c_str(), 0700);
  }
  const std::string library = std::filesystem::weakly_canonical(applicationFolder).string();
  return folder / fmt::format("lectern-sign-in-{}.sock", MD5Hash(library).substr(0, 12));
}

Result<bool> deliverToWaitingSignIn(const std::filesystem::path& socketPath, std::string_view url) {
  sockaddr_un address{};
  if (!fillAddress(address, socketPath)) return false;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(systemError("socket"));
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    closeQuietly(fd);
    return false;
  }
  writeAll(fd, fmt::format("{}\n", url));
  const std::string answer =
      readUntil(fd, [](const std::string& bytes) { return bytes.find('\n') != std::string::npos; });
  closeQuietly(fd);
  return answer.starts_with("ok");
}

Result<void> openInBrowser(std::string_view url) {
  if (const char* browsers = std::getenv("BROWSER"); browsers && *browsers) {
    for (const auto& command : split(browsers, ":")) {
      auto arguments = words(command);
      if (arguments.empty()) continue;
      bool substituted = false;
      for (auto& argument : arguments) {
        if (auto at = argument.find("%s"); at != std::string::npos) {
          argument.replace(at, 2, url);
          substituted = true;
        }
      }
      if (!substituted) arguments.emplace_back(url);
      if (spawn(std::move(arguments))) return {};
    }
  }
  if (spawn({"xdg-open", std::string(url)})) return {};
  return fail(kLecternErrorDomain, 0, "Failed to open the browser",
              "Neither $BROWSER nor xdg-open could be started: open the address above yourself.");
}

std::map<std::string, std::string> queryParametersOf(std::string_view url) {
  std::map<std::string, std::string> parameters;
  auto query = url.substr(
      std::min(url.size(), url.find('?') == std::string_view::npos ? url.size() : url.find('?') + 1));
  query = query.substr(0, query.find('#'));
  for (const auto& part : split(query, "&")) {
    if (part.empty()) continue;
    const auto equals = part.find('=');
    auto decode = [](std::string text) {
      for (auto& c : text) {
        if (c == '+') c = ' ';
      }
      return percentUnescape(text);
    };
    parameters.try_emplace(decode(part.substr(0, equals)),
                           equals == std::string::npos ? std::string() : decode(part.substr(equals + 1)));
  }
  return parameters;
}

std::string randomState() {
  std::array<unsigned char, 16> bytes{};
  RAND_bytes(bytes.data(), static_cast<int>(bytes.size()));
  return hexEncode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

namespace {

// A sign-in left waiting longer than this is not finished by `open-url`.
constexpr std::chrono::hours kPendingLifetime{1};

std::filesystem::path pendingFile(const BrowserSignInFlow& flow, const Paths& paths) {
  return paths.stateFolder / fmt::format("{}-sign-in.json", flow.service);
}

std::int64_t secondsOf(const Clock& clock) {
  return std::chrono::duration_cast<std::chrono::seconds>(clock.now().time_since_epoch()).count();
}

}  // namespace

bool isBrowserSignInAnswer(const BrowserSignInFlow& flow, std::string_view url) {
  const std::string_view redirect = flow.schemeRedirect;
  return url.starts_with(redirect) && (url.size() == redirect.size() || url[redirect.size()] == '?');
}

Result<BrowserSignInAnswer> waitForBrowserSignIn(
    const BrowserSignInFlow& flow, const Paths& paths, const Clock& clock,
    const std::function<Result<BrowserSignInPage>(const std::string& redirectURI)>& pageFor) {
  auto listener = flow.loopback
                      ? RedirectListener::onLoopback(fmt::format("/{}/auth", flow.service))
                      : RedirectListener::forScheme(signInSocketPath(paths.applicationFolder), flow.schemeRedirect);
  if (!listener) return fail(listener.error());
  const std::string redirectURI = (*listener)->redirectURI();
  auto page = pageFor(redirectURI);
  if (!page) return fail(page.error());

  // Kept so that `lectern open-url` can finish the sign-in should this command be gone by then.
  std::error_code ignored;
  const auto pending = pendingFile(flow, paths);
  if (!flow.loopback) {
    std::filesystem::create_directories(paths.stateFolder, ignored);
    nlohmann::json kept = page->pending;
    kept["redirect_uri"] = redirectURI;
    kept["started"] = secondsOf(clock);
    std::ofstream(pending) << kept.dump();
  }
  if (flow.showSignInPage) flow.showSignInPage(page->url);
  if (flow.openBrowser) (void)openInBrowser(page->url);  // the page was shown: a person can open it
  auto answer = (*listener)->waitForURL(flow.timeout);
  if (!answer) {
    Error error = answer.error();
    // The page stays valid: finished later, the desktop's `lectern open-url` completes it.
    if (!flow.loopback) {
      error.recoverySuggestion =
          "No answer came back from the browser in time. Finish signing in there within the hour and Lectern "
          "adds the account then, or run the command again.";
    }
    return fail(error);
  }
  if (!flow.loopback) std::filesystem::remove(pending, ignored);
  return BrowserSignInAnswer{*answer, redirectURI};
}

Result<nlohmann::json> takePendingBrowserSignIn(const BrowserSignInFlow& flow, const Paths& paths,
                                                const Clock& clock) {
  const auto file = pendingFile(flow, paths);
  std::ifstream in(file);
  const nlohmann::json pending = in ? nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false) : nlohmann::json();
  in.close();
  std::error_code ignored;
  // One answer per sign-in: a second one (or a forged one) finds nothing to finish.
  std::filesystem::remove(file, ignored);
  if (!pending.is_object()) {
    return fail(kLecternErrorDomain, 0, flow.title,
                fmt::format("No sign-in is waiting for this answer: start one with `lectern account add {}`.",
                            flow.service));
  }
  const auto started = pending.value("started", std::int64_t{0});
  if (std::chrono::seconds(secondsOf(clock) - started) > kPendingLifetime) {
    return fail(kLecternErrorDomain, 0, flow.title,
                fmt::format("The sign-in this answer belongs to began more than an hour ago: start again with "
                            "`lectern account add {}`.",
                            flow.service));
  }
  return pending;
}

}  // namespace lectern
