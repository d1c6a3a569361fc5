#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>

#include "ContentTestSupport.h"
#include "content/QKContentParserAsync.h"

namespace lectern {
namespace {

using test::contains;
using test::contentPage;

struct Delivery {
  std::string content;
  std::string title;
  bool onMainThread = false;
};

class ContentParserAsyncTest : public ::testing::Test {
 protected:
  QKContentParserAsync::Completion collect() {
    return [this](Result<QKContentParser> parser) {
      ASSERT_TRUE(parser);
      // The content is already there: the worker fetched it before handing the parser over.
      deliveries_.push_back({parser->fetchContent(), parser->title(), mainQueue_.isMainThread()});
    };
  }
  bool waitFor(size_t count) {
    return mainQueue_.runUntil([&] { return deliveries_.size() >= count; }, std::chrono::seconds(60));
  }

  MainQueue mainQueue_;
  std::vector<Delivery> deliveries_;  // touched on the main thread only
};

TEST_F(ContentParserAsyncTest, ParsesOnWorkersAndDeliversOnTheMainQueue) {
  QKContentParserAsync async(mainQueue_);
  async.contentOfHTML(contentPage("instapaper-body.html"), collect());
  async.contentOfData(contentPage("latin1-meta.html"), collect());
  async.contentOfHTML(contentPage("no-candidate.html"), collect());
  ASSERT_TRUE(waitFor(3));
  std::set<std::string> titles;
  for (const auto& delivery : deliveries_) {
    EXPECT_TRUE(delivery.onMainThread) << delivery.title;
    titles.insert(delivery.title);
    if (delivery.title == "Two articles") {
      EXPECT_TRUE(contains(delivery.content, "INSTAPAPER-BODY"));
    } else if (delivery.title == "Caf\xC3\xA9") {
      EXPECT_TRUE(contains(delivery.content, "caf\xC3\xA9"));
    } else {
      EXPECT_EQ(delivery.content, "") << delivery.title;
    }
  }
  EXPECT_EQ(titles, (std::set<std::string>{"Two articles", "Caf\xC3\xA9", "Nothing to read"}));
}

TEST_F(ContentParserAsyncTest, ErrorsAreDeliveredToo) {
  QKContentParserAsync async(mainQueue_);
  std::optional<Error> error;
  async.contentOfData(std::string(QKContentParser::kMaxPageBytes + 1, 'x'),
                      [&](Result<QKContentParser> parser) {
                        ASSERT_FALSE(parser);
                        error = parser.error();
                      });
  ASSERT_TRUE(mainQueue_.runUntil([&] { return error.has_value(); }, std::chrono::seconds(60)));
  EXPECT_EQ(error->code, kContentPageTooLarge);
}

TEST_F(ContentParserAsyncTest, GoingAwayOnTheMainThreadLetsRunningWorkersFinish) {
  {
    QKContentParserAsync async(mainQueue_);
    for (int i = 0; i < 4; ++i) async.contentOfHTML(contentPage("clutter.html"), collect());
  }  // the workers wait on the main queue, which the destructor keeps running
  ASSERT_EQ(deliveries_.size(), 4u);
  for (const auto& delivery : deliveries_) EXPECT_TRUE(contains(delivery.content, "The opening paragraph"));
}

TEST_F(ContentParserAsyncTest, AfterShutdownCompletionsRunOnTheWorker) {
  mainQueue_.shutdown();
  std::atomic<bool> delivered = false;
  {
    QKContentParserAsync async(mainQueue_);
    async.contentOfHTML(contentPage("clutter.html"), [&](Result<QKContentParser> parser) {
      EXPECT_TRUE(parser);
      delivered = true;
    });
  }
  EXPECT_TRUE(delivered);
}

}  // namespace
}  // namespace lectern
