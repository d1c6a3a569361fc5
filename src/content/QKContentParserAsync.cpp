#include "content/QKContentParserAsync.h"

#include <pthread.h>

#include <chrono>

namespace lectern {

QKContentParserAsync::QKContentParserAsync(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

QKContentParserAsync::~QKContentParserAsync() {
  std::vector<Worker> workers;
  {
    std::lock_guard lock(mutex_);
    workers.swap(workers_);
  }
  for (Worker& worker : workers) {
    if (mainQueue_.isMainThread()) {
      // A worker posts its completion and then marks itself finished, so the check after the
      // last task can come too early: look again every few milliseconds.
      while (!worker.finished->load()) {
        mainQueue_.runUntil([&] { return worker.finished->load(); }, std::chrono::milliseconds(5));
      }
    }
    worker.thread.join();
  }
}

void QKContentParserAsync::contentOfHTML(std::string html, Completion onComplete) {
  start([html = std::move(html)] { return QKContentParser::initWithHTML(html); }, std::move(onComplete));
}

void QKContentParserAsync::contentOfData(std::string data, Completion onComplete) {
  start([data = std::move(data)] { return QKContentParser::initWithData(data); }, std::move(onComplete));
}

void QKContentParserAsync::start(Build build, Completion onComplete) {
  auto finished = std::make_shared<std::atomic<bool>>(false);
  std::thread thread([this, build = std::move(build), onComplete = std::move(onComplete), finished] {
    pthread_setname_np(pthread_self(), "ContentParser");
    Result<QKContentParser> parser = build();
    if (parser) parser->fetchContent();
    mainQueue_.runSync([&] { onComplete(std::move(parser)); });
    finished->store(true);
  });
  std::lock_guard lock(mutex_);
  reapFinishedWorkers();
  workers_.push_back(Worker{std::move(thread), std::move(finished)});
}

void QKContentParserAsync::reapFinishedWorkers() {
  std::erase_if(workers_, [](Worker& worker) {
    if (!worker.finished->load()) return false;
    worker.thread.join();
    return true;
  });
}

}  // namespace lectern
