#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/MainQueue.h"
#include "core/Reachability.h"
#include "net/CannedTransport.h"
#include "net/NetworkSession.h"

namespace lectern::test {

// A cpp-httplib server on 127.0.0.1 and an ephemeral port. Register handlers on server() before
// start(). It records the client port of every request, so tests can count TCP connections.
class LocalServer {
 public:
  // Idle keep-alive connections are dropped after `keepAlive`; a short time lets the server stop promptly.
  explicit LocalServer(std::chrono::seconds keepAlive = std::chrono::seconds(1));
  ~LocalServer();
  httplib::Server& server() { return server_; }
  void start();
  int port() const { return port_; }
  std::string url(std::string_view path = "/") const;
  size_t connectionCount() const;
  size_t requestCount() const;

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;  // guards clientPorts_, requests_
  std::set<int> clientPorts_;
  size_t requests_ = 0;
};

// A TCP server that reads one request head per connection and then runs a script on the socket:
// for answers no well-behaved HTTP server would give.
class RawServer {
 public:
  using Script = std::function<void(int socket, RawServer& server)>;
  explicit RawServer(Script script);
  ~RawServer();
  int port() const { return port_; }
  std::string url(std::string_view path = "/") const;
  // For scripts: waits until the server stops or `duration` passes.
  void idle(std::chrono::milliseconds duration);
  static void send(int socket, std::string_view bytes);

 private:
  void acceptLoop();

  Script script_;
  int listener_ = -1;
  int port_ = 0;
  std::mutex mutex_;  // guards stopping_, workers_
  std::condition_variable stopped_;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

// A main queue, a reachability that says yes, and a session over the real transport (or a canned
// one): what every client test needs.
struct NetFixture {
  explicit NetFixture(NetworkSessionOptions options = {});
  NetFixture(std::unique_ptr<Transport> transport, NetworkSessionOptions options = {});
  // Runs the main queue until `done` or 20 s; returns `done()`.
  bool runUntil(const std::function<bool()>& done);

  MainQueue main;
  FixedReachability reachability;
  NetworkSession session;
};

// Options with fixed languages and release, so header values are predictable.
NetworkSessionOptions testSessionOptions();

}  // namespace lectern::test
