// Parses one feed file once with the chosen parser and prints what it found; run under
// /usr/bin/time by run.sh to measure the peak memory of one parse.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "core/Log.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/RSSParser.h"

int main(int argc, char** argv) {
  if (argc != 3 || (std::strcmp(argv[1], "dictionary") != 0 && std::strcmp(argv[1], "stream") != 0)) {
    std::fprintf(stderr, "usage: feed_parse_peak dictionary|stream FILE\n");
    return 2;
  }
  lectern::Log::setDebugEnabled(false);
  lectern::Result<lectern::RSSFeed> feed;
  if (std::strcmp(argv[1], "stream") == 0) {
    feed = lectern::RSSParser::withFile(argv[2]).fetch();
  } else {
    std::ifstream in(argv[2], std::ios::binary | std::ios::ate);
    std::string bytes(static_cast<std::size_t>(in.tellg()), '\0');
    in.seekg(0).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    feed = lectern::FeedDocumentParser::parseFeedData(bytes, std::chrono::system_clock::now());
  }
  if (!feed) {
    std::fprintf(stderr, "%s\n", feed.error().message().c_str());
    return 1;
  }
  std::printf("%zu articles\n", feed->articles.size());
  return 0;
}
