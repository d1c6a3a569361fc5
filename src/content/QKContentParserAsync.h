#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "content/QKContentParser.h"
#include "core/Error.h"
#include "core/MainQueue.h"

namespace lectern {

class NetworkSession;

// Runs extractions off the main thread, a worker per call; each completion runs on the main queue.
// Owned by the program on the main thread; its destructor waits for the workers still running.
class QKContentParserAsync {
 public:
  // The name of the workers' queue; the threads are named "ContentParser".
  static constexpr std::string_view kQueueLabel = "com.quillhq.ContentParser";
  // Gets the parser after fetchContent ran (or the error that kept it from being built).
  using Completion = std::function<void(Result<QKContentParser> parser)>;

  explicit QKContentParserAsync(MainQueue& mainQueue);
  // On the main thread it keeps running the main queue while it waits, so that workers blocked
  // on their completions can end.
  ~QKContentParserAsync();
  QKContentParserAsync(const QKContentParserAsync&) = delete;
  QKContentParserAsync& operator=(const QKContentParserAsync&) = delete;

  // Each call parses on a new thread, so several pages may be parsed at once; the worker waits
  // until its completion has run on the main queue.
  void contentOfHTML(std::string html, Completion onComplete);
  void contentOfData(std::string data, Completion onComplete);
  // Downloads the page on the worker through the network layer (see contentParserWithURL), then
  // parses it like contentOfData. Needs lectern_core, which holds the network part.
  void contentOfURL(NetworkSession& session, std::string url, Completion onComplete);

 private:
  // Makes the parser on the worker. Every entry point is one of these; a page fetched from a URL
  // is one more: download, then initWithData and setDomain with the final URL.
  using Build = std::function<Result<QKContentParser>()>;
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> finished;
  };

  void start(Build build, Completion onComplete);
  // Joins the workers that are done. Called with mutex_ held.
  void reapFinishedWorkers();

  MainQueue& mainQueue_;
  std::mutex mutex_;  // guards workers_
  std::vector<Worker> workers_;
};

}  // namespace lectern
