#pragma once

// Servers on 127.0.0.1 that misbehave on purpose, written on raw sockets because no well-behaved
// server library will lie about a length, reset a connection mid-body or stall for a minute.

#include <openssl/ssl.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace lectern::test {

// One HTTP/1.1 server (and beside it one TLS port with a self-signed certificate) answering:
//   /good/NAME         a valid Atom feed with the entries "NAME one" and "NAME two"
//   /endless           a feed without a length that never ends
//   /ten-million       a chunked feed of 10,000,000 entries, generated as it is sent
//   /drip              a feed promised 1,000 bytes long, sent one byte a minute
//   /gzip-bomb         a gzip body of 256 KiB that decodes to 512 MiB
//   /length-long       a complete feed whose Content-Length claims 10,000 bytes more
//   /length-short      a complete feed whose Content-Length claims half of it
//   /reset             16 KiB of a 1 MiB answer, then a TCP reset
//   /to-file           a redirect to a file:// address of a valid feed on this machine
//   /to-ftp            a redirect to ftp://
//   /loop-a, /loop-b   redirects to each other
//   /deep-content      an entry whose XHTML content nests 100,000 elements deep
//   /deep-document     a document whose elements nest 100,000 deep
// The TLS port serves /good/NAME too, to a client that accepts its certificate.
class HostileServer {
 public:
  // `scratch` receives the certificate, its key and the file the file:// redirect names.
  explicit HostileServer(const std::filesystem::path& scratch);
  ~HostileServer();
  HostileServer(const HostileServer&) = delete;
  HostileServer& operator=(const HostileServer&) = delete;

  std::string url(const std::string& path) const;     // http://127.0.0.1:PORT<path>
  std::string tlsURL(const std::string& path) const;  // https://127.0.0.1:TLSPORT<path>
  std::filesystem::path localFeedFile() const { return localFeed_; }

  int requests(const std::string& path) const;
  std::uint64_t bytesSent(const std::string& path) const;
  int tlsHandshakesStarted() const { return tlsHandshakes_; }
  int tlsHandshakesCompleted() const { return tlsCompleted_; }
  // Requests in plain text that reached the TLS port: a client falling back to plain HTTP.
  int plainRequestsOnTLSPort() const { return plainOnTLS_; }

  static std::string goodFeed(const std::string& name);

 private:
  void acceptLoop(int listener, bool tls);
  void serve(int fd, bool tls);
  void answer(int fd, SSL* ssl, const std::string& path);
  bool sendAll(int fd, SSL* ssl, std::string_view bytes, const std::string& path);
  void counted(const std::string& path);
  bool waitStopping(std::chrono::milliseconds period);

  std::filesystem::path localFeed_;
  std::string gzipBomb_;
  SSL_CTX* tlsContext_ = nullptr;
  int listener_ = -1;
  int tlsListener_ = -1;
  int port_ = 0;
  int tlsPort_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> tlsHandshakes_{0};
  std::atomic<int> tlsCompleted_{0};
  std::atomic<int> plainOnTLS_{0};
  std::thread acceptor_;
  std::thread tlsAcceptor_;

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable stopped_;
  std::vector<std::thread> connections_;
  std::vector<int> openSockets_;
  std::map<std::string, int> requests_;
  std::map<std::string, std::uint64_t> bytes_;
};

}  // namespace lectern::test
