// The feed server of the end-to-end refresh benchmark: serves the files of one folder on
// 127.0.0.1 with Last-Modified and ETag, from a thread pool, at a small fraction of the CPU the
// readers under test use (the Python server it replaces took about 0.4 s of a 2-core machine's CPU
// per pass, which both readers then waited for). Conditional requests are answered 304 only while
// the file "conditional" exists beside the served folder, so a run can make both readers
// download and read every document, or measure their 304 path.
//
// Usage: feed_server ROOT PORT   (ROOT may be a symbolic link that the benchmark moves between states)
#include <httplib.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

namespace {

std::string httpDate(std::time_t when) {
  char text[64];
  std::tm parts{};
  gmtime_r(&when, &parts);
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: feed_server ROOT PORT\n");
    return 2;
  }
  const std::filesystem::path root = argv[1];
  const int port = std::atoi(argv[2]);
  const std::filesystem::path conditionalFlag = std::filesystem::absolute(root).parent_path() / "conditional";

  // Each document is read once (per state: the key holds its path as resolved, size and time) and
  // sent from memory without a copy, so serving costs little beside the reader under test.
  std::mutex cacheMutex;
  std::map<std::string, std::shared_ptr<const std::string>> cache;

  httplib::Server server;
  // Runs follow each other on one port: connections of the last one may still be in TIME_WAIT.
  server.set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &yes, sizeof yes);
  });
  server.Get(R"(/([A-Za-z0-9._-]+))", [&](const httplib::Request& request, httplib::Response& response) {
    const std::filesystem::path file = root / request.matches[1].str();
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      response.status = 404;
      return;
    }
    const std::string lastModified = httpDate(info.st_mtime);
    const std::string etag = "\"" + std::to_string(info.st_size) + "-" + std::to_string(info.st_mtim.tv_sec) + "." +
                             std::to_string(info.st_mtim.tv_nsec) + "\"";
    response.set_header("Last-Modified", lastModified);
    response.set_header("ETag", etag);
    if (std::filesystem::exists(conditionalFlag) &&
        (request.get_header_value("If-None-Match") == etag ||
         (!request.has_header("If-None-Match") && request.get_header_value("If-Modified-Since") == lastModified))) {
      response.status = 304;
      return;
    }
    std::error_code error;
    const std::string key = std::filesystem::canonical(file, error).string() + "|" + etag;
    std::shared_ptr<const std::string> body;
    {
      std::lock_guard lock(cacheMutex);
      if (auto found = cache.find(key); found != cache.end()) body = found->second;
    }
    if (!body) {
      std::ifstream in(file, std::ios::binary);
      std::ostringstream read;
      read << in.rdbuf();
      body = std::make_shared<const std::string>(read.str());
      std::lock_guard lock(cacheMutex);
      cache.emplace(key, body);
    }
    // Each feed type's own media type, which the server library does not compress: plain bodies,
    // as the Python server this replaces sent. Compressing 95 MB per pass would make the server,
    // not the readers, the slowest part of a run on a small machine.
    const std::string extension = file.extension().string();
    const char* type = extension == ".rss"    ? "application/rss+xml"
                       : extension == ".atom" ? "application/atom+xml"
                       : extension == ".rdf"  ? "application/rdf+xml"
                                              : "application/octet-stream";
    response.set_content_provider(body->size(), type,
                                  [body](size_t offset, size_t length, httplib::DataSink& sink) {
                                    sink.write(body->data() + offset, length);
                                    return true;
                                  });
  });
  if (!server.listen("127.0.0.1", port)) {
    std::fprintf(stderr, "feed_server: cannot listen on 127.0.0.1:%d\n", port);
    return 1;
  }
  return 0;
}
