#include "NetTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace lectern::test {

LocalServer::LocalServer(std::chrono::seconds keepAlive) {
  server_.set_keep_alive_timeout(keepAlive.count());
  // Enough workers for ten keep-alive connections at once, and connections that stay open.
  server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
  server_.set_keep_alive_max_count(100000);
  server_.set_tcp_nodelay(true);
  server_.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response&) {
    std::lock_guard lock(mutex_);
    clientPorts_.insert(request.remote_port);
    ++requests_;
    return httplib::Server::HandlerResponse::Unhandled;
  });
}

LocalServer::~LocalServer() {
  server_.stop();
  if (thread_.joinable()) thread_.join();
}

void LocalServer::start() {
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("cannot bind a local port");
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

std::string LocalServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

size_t LocalServer::connectionCount() const {
  std::lock_guard lock(mutex_);
  return clientPorts_.size();
}

size_t LocalServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

RawServer::RawServer(Script script) : script_(std::move(script)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 16) != 0) {
    throw std::runtime_error("cannot bind a local port");
  }
  socklen_t length = sizeof address;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

RawServer::~RawServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  acceptor_.join();
  for (auto& worker : workers_) worker.join();
  ::close(listener_);
}

std::string RawServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

void RawServer::idle(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  stopped_.wait_for(lock, duration, [this] { return stopping_; });
}

void RawServer::send(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto n = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

void RawServer::acceptLoop() {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
    }
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 20) <= 0) continue;
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    std::lock_guard lock(mutex_);
    workers_.emplace_back([this, client] {
      // Read the request head, then let the script answer.
      std::string head;
      char buffer[4096];
      while (head.find("\r\n\r\n") == std::string::npos) {
        pollfd readable{client, POLLIN, 0};
        if (::poll(&readable, 1, 2000) <= 0) break;
        const auto n = ::recv(client, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        head.append(buffer, static_cast<size_t>(n));
      }
      script_(client, *this);
      ::close(client);
    });
  }
}

NetworkSessionOptions testSessionOptions() {
  NetworkSessionOptions options;
  options.preferredLanguages = {"en", "fr"};
  options.systemRelease = "6.1.0-test";
  return options;
}

NetFixture::NetFixture(NetworkSessionOptions options) : session(main, reachability, std::move(options)) {}

NetFixture::NetFixture(std::unique_ptr<Transport> transport, NetworkSessionOptions options)
    : session(main, reachability, std::move(transport), std::move(options)) {}

bool NetFixture::runUntil(const std::function<bool()>& done) {
  return main.runUntil(done, std::chrono::seconds(20));
}

}  // namespace lectern::test
