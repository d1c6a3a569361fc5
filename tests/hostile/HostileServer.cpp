#include "hostile/HostileServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <stdexcept>

#include <fmt/format.h>

#include "support/TestSupport.h"

namespace lectern::test {
namespace {

constexpr int kDepth = 100'000;

std::string atomEntry(const std::string& id, const std::string& title) {
  return fmt::format(
      "<entry><id>{0}</id><title>{1}</title><link href=\"https://example.org/{0}\"/>"
      "<updated>2026-11-20T10:00:00Z</updated><content type=\"html\">&lt;p&gt;{1}&lt;/p&gt;</content></entry>\n",
      id, title);
}

const std::string kFeedHead =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<feed xmlns=\"http://www.w3.org/2005/Atom\">"
    "<title>Hostile</title><id>urn:hostile</id><updated>2026-11-20T10:00:00Z</updated>\n";

std::string head(int status, const std::string& fields) {
  const char* reason = status == 200 ? "OK" : status == 301 ? "Moved Permanently" : "Found";
  return fmt::format("HTTP/1.1 {} {}\r\n{}Connection: close\r\n\r\n", status, reason, fields);
}

// 512 MiB of blanks, gzip-compressed (about 500 KiB).
std::string makeGzipBomb() {
  z_stream z{};
  if (deflateInit2(&z, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2");
  const std::string block(1 << 20, ' ');
  std::string out;
  char buffer[1 << 16];
  for (int i = 0; i < 512; ++i) {
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(block.data()));
    z.avail_in = static_cast<uInt>(block.size());
    const int flush = i == 511 ? Z_FINISH : Z_NO_FLUSH;
    do {
      z.next_out = reinterpret_cast<Bytef*>(buffer);
      z.avail_out = sizeof buffer;
      deflate(&z, flush);
      out.append(buffer, sizeof buffer - z.avail_out);
    } while (z.avail_out == 0);
  }
  deflateEnd(&z);
  return out;
}

int listenOnLoopback(int& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 64) != 0)
    throw std::runtime_error("cannot listen on 127.0.0.1");
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

// A self-signed certificate for 127.0.0.1, made now by the openssl command.
void makeCertificate(const std::filesystem::path& cert, const std::filesystem::path& key) {
  const pid_t pid = spawnQuietly({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                  "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                                  "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key.string(), "-out",
                                  cert.string()});
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error("openssl req failed");
}

}  // namespace

std::string HostileServer::goodFeed(const std::string& name) {
  return kFeedHead + atomEntry("urn:" + name + ":1", name + " one") + atomEntry("urn:" + name + ":2", name + " two") +
         "</feed>\n";
}

HostileServer::HostileServer(const std::filesystem::path& scratch) : gzipBomb_(makeGzipBomb()) {
  localFeed_ = scratch / "local-feed.xml";
  writeFile(localFeed_, goodFeed("local file"));
  const auto cert = scratch / "cert.pem";
  const auto key = scratch / "key.pem";
  makeCertificate(cert, key);
  tlsContext_ = SSL_CTX_new(TLS_server_method());
  if (tlsContext_ == nullptr || SSL_CTX_use_certificate_file(tlsContext_, cert.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(tlsContext_, key.c_str(), SSL_FILETYPE_PEM) != 1)
    throw std::runtime_error("cannot load the test certificate");
  listener_ = listenOnLoopback(port_);
  tlsListener_ = listenOnLoopback(tlsPort_);
  acceptor_ = std::thread([this] { acceptLoop(listener_, false); });
  tlsAcceptor_ = std::thread([this] { acceptLoop(tlsListener_, true); });
}

HostileServer::~HostileServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (int fd : openSockets_) ::shutdown(fd, SHUT_RDWR);
  }
  stopped_.notify_all();
  ::shutdown(listener_, SHUT_RDWR);
  ::shutdown(tlsListener_, SHUT_RDWR);
  acceptor_.join();
  tlsAcceptor_.join();
  ::close(listener_);
  ::close(tlsListener_);
  std::vector<std::thread> connections;
  {
    std::lock_guard lock(mutex_);
    connections.swap(connections_);
  }
  for (auto& connection : connections) connection.join();
  SSL_CTX_free(tlsContext_);
}

std::string HostileServer::url(const std::string& path) const { return fmt::format("http://127.0.0.1:{}{}", port_, path); }

std::string HostileServer::tlsURL(const std::string& path) const {
  return fmt::format("https://127.0.0.1:{}{}", tlsPort_, path);
}

int HostileServer::requests(const std::string& path) const {
  std::lock_guard lock(mutex_);
  auto it = requests_.find(path);
  return it == requests_.end() ? 0 : it->second;
}

std::uint64_t HostileServer::bytesSent(const std::string& path) const {
  std::lock_guard lock(mutex_);
  auto it = bytes_.find(path);
  return it == bytes_.end() ? 0 : it->second;
}

void HostileServer::acceptLoop(int listener, bool tls) {
  while (!stopping_) {
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (stopping_) return;
      continue;
    }
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    openSockets_.push_back(fd);
    connections_.emplace_back([this, fd, tls] { serve(fd, tls); });
  }
}

void HostileServer::counted(const std::string& path) {
  std::lock_guard lock(mutex_);
  ++requests_[path];
}

bool HostileServer::waitStopping(std::chrono::milliseconds period) {
  std::unique_lock lock(mutex_);
  return stopped_.wait_for(lock, period, [this] { return stopping_.load(); });
}

bool HostileServer::sendAll(int fd, SSL* ssl, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const long sent = ssl != nullptr ? SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size()))
                                     : ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0 || stopping_) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
    std::lock_guard lock(mutex_);
    bytes_[path] += static_cast<std::uint64_t>(sent);
  }
  return true;
}

void HostileServer::serve(int fd, bool tls) {
  SSL* ssl = nullptr;
  std::string request;
  char buffer[4096];
  bool ready = true;
  if (tls) {
    unsigned char first = 0;
    if (::recv(fd, &first, 1, MSG_PEEK) == 1 && first != 0x16) {
      ++plainOnTLS_;  // not a TLS handshake: a client talking plain HTTP to the TLS port
      ready = false;
    } else {
      ++tlsHandshakes_;
      ssl = SSL_new(tlsContext_);
      SSL_set_fd(ssl, fd);
      ready = SSL_accept(ssl) == 1;
      if (ready) ++tlsCompleted_;
    }
  }
  while (ready && request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
    const long n = ssl != nullptr ? SSL_read(ssl, buffer, sizeof buffer) : ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) {
      ready = false;
      break;
    }
    request.append(buffer, static_cast<size_t>(n));
  }
  if (ready) {
    const auto start = request.find(' ');
    const auto end = request.find(' ', start + 1);
    if (start != std::string::npos && end != std::string::npos) answer(fd, ssl, request.substr(start + 1, end - start - 1));
  }
  if (ssl != nullptr) SSL_free(ssl);
  std::lock_guard lock(mutex_);
  std::erase(openSockets_, fd);
  ::close(fd);
}

void HostileServer::answer(int fd, SSL* ssl, const std::string& path) {
  counted(path);
  const std::string atom = "Content-Type: application/atom+xml\r\n";
  if (path.starts_with("/good/")) {
    const std::string body = goodFeed(path.substr(6));
    sendAll(fd, ssl, head(200, atom + fmt::format("Content-Length: {}\r\n", body.size())) + body, path);
  } else if (path == "/endless") {
    if (!sendAll(fd, ssl, head(200, atom) + kFeedHead, path)) return;
    std::string block;
    for (int i = 0; block.size() < 65536; ++i) block += atomEntry(fmt::format("urn:endless:{}", i), "Again");
    while (sendAll(fd, ssl, block, path)) {
    }
  } else if (path == "/ten-million") {
    auto chunk = [](const std::string& data) { return fmt::format("{:x}\r\n{}\r\n", data.size(), data); };
    if (!sendAll(fd, ssl, head(200, atom + "Transfer-Encoding: chunked\r\n") + chunk(kFeedHead), path)) return;
    // Each entry is a copy of one template with its number written in twice: the server has to
    // outpace the reader for the size cap, not the clock, to be what stops it.
    const std::string entry = atomEntry("urn:many:00000000", "Entry 00000000");
    const size_t first = entry.find("00000000");
    const size_t second = entry.find("00000000", first + 8);
    std::string block;
    for (int i = 0; i < 10'000'000; ++i) {
      const size_t at = block.size();
      block += entry;
      for (int n = i, digit = 7; digit >= 0; --digit, n /= 10) {
        block[at + first + static_cast<size_t>(digit)] = static_cast<char>('0' + n % 10);
        block[at + second + static_cast<size_t>(digit)] = static_cast<char>('0' + n % 10);
      }
      if (block.size() >= 65536) {
        if (!sendAll(fd, ssl, chunk(block), path)) return;
        block.clear();
      }
    }
    sendAll(fd, ssl, chunk(block + "</feed>\n") + "0\r\n\r\n", path);
  } else if (path == "/drip") {
    if (!sendAll(fd, ssl, head(200, atom + "Content-Length: 1000\r\n"), path)) return;
    const std::string body = kFeedHead;
    for (char byte : body) {
      if (!sendAll(fd, ssl, std::string_view(&byte, 1), path) || waitStopping(std::chrono::minutes(1))) return;
    }
  } else if (path == "/gzip-bomb") {
    sendAll(fd, ssl,
            head(200, atom + fmt::format("Content-Encoding: gzip\r\nContent-Length: {}\r\n", gzipBomb_.size())) +
                gzipBomb_,
            path);
  } else if (path == "/length-long" || path == "/length-short") {
    const std::string body = goodFeed("wrong length");
    const size_t claimed = path == "/length-long" ? body.size() + 10000 : body.size() / 2;
    sendAll(fd, ssl, head(200, atom + fmt::format("Content-Length: {}\r\n", claimed)) + body, path);
  } else if (path == "/reset") {
    std::string body = kFeedHead;
    for (int i = 0; body.size() < 16384; ++i) body += atomEntry(fmt::format("urn:reset:{}", i), "Cut");
    sendAll(fd, ssl, head(200, atom + "Content-Length: 1048576\r\n") + body, path);
    const linger abort{1, 0};  // close with RST instead of FIN
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  } else if (path == "/to-file") {
    sendAll(fd, ssl, head(302, "Location: file://" + localFeed_.string() + "\r\nContent-Length: 0\r\n"), path);
  } else if (path == "/to-ftp") {
    sendAll(fd, ssl, head(301, fmt::format("Location: ftp://127.0.0.1:{}/good/ftp\r\nContent-Length: 0\r\n", port_)),
            path);
  } else if (path == "/loop-a" || path == "/loop-b") {
    sendAll(fd, ssl,
            head(302, fmt::format("Location: {}\r\nContent-Length: 0\r\n", path == "/loop-a" ? "/loop-b" : "/loop-a")),
            path);
  } else if (path == "/deep-content" || path == "/deep-document") {
    std::string body = kFeedHead;
    if (path == "/deep-content")
      body += "<entry><id>urn:deep</id><title>Deep</title><updated>2026-11-20T10:00:00Z</updated>"
              "<content type=\"xhtml\"><div xmlns=\"http://www.w3.org/1999/xhtml\">";
    body.reserve(body.size() + kDepth * 12);
    for (int i = 0; i < kDepth; ++i) body += "<div>";
    body += "deep";
    for (int i = 0; i < kDepth; ++i) body += "</div>";
    if (path == "/deep-content") body += "</div></content></entry>";
    body += "</feed>\n";
    sendAll(fd, ssl, head(200, atom + fmt::format("Content-Length: {}\r\n", body.size())) + body, path);
  } else {
    sendAll(fd, ssl, head(200, "Content-Length: 0\r\n").replace(9, 6, "404 Not Found"), path);
  }
}

}  // namespace lectern::test
