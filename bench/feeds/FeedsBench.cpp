// Parse throughput of the feed parsers over the shared real-world corpus and a generated set,
// with libxml2's bare SAX parse of the same bytes as the floor. Without the corpus (a clone
// without the shared folder beside it) those cases are skipped with a message;
// LECTERN_CORPUS_DIR in the environment names another corpus folder.
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/Dates.h"
#include "core/Log.h"
#include "feeds/FeedDocumentParser.h"
#include "feeds/RSSParser.h"
#include "feeds/XMLReader.h"

namespace {

namespace fs = std::filesystem;
using namespace lectern;

struct FeedSet {
  std::vector<std::string> documents;
  std::size_t bytes = 0;
};

// The shared corpus: LECTERN_CORPUS_DIR from the environment, else the folder the build names.
const std::string& corpusDir() {
  static const std::string dir = [] {
    const char* given = std::getenv("LECTERN_CORPUS_DIR");
    return std::string(given && *given ? given : LECTERN_CORPUS_DIR);
  }();
  return dir;
}

bool corpusPresent() {
  std::error_code ec;
  return fs::is_directory(corpusDir(), ec);
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

FeedSet loadFolder(const fs::path& folder) {
  FeedSet set;
  std::vector<fs::path> files;
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) return set;
  for (const auto& item : fs::directory_iterator(folder)) {
    const auto ext = item.path().extension();
    if (item.is_regular_file() && ext != ".tsv" && ext != ".txt") files.push_back(item.path());
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    set.documents.push_back(readFile(file));
    set.bytes += set.documents.back().size();
  }
  return set;
}

// The generated set is made once per run in a temporary folder, and removed at exit; or read from
// the folder LECTERN_FEEDS_BENCH_GENERATED names (made by gen-feeds.py beforehand), when set.
struct GeneratedFeeds {
  fs::path folder;
  FeedSet set;
  GeneratedFeeds() {
    if (const char* given = std::getenv("LECTERN_FEEDS_BENCH_GENERATED")) {
      set = loadFolder(given);
      return;
    }
    if (!corpusPresent()) return;  // the generator is part of the corpus
    char pattern[] = "/tmp/lectern-feeds-bench-XXXXXX";
    if (!mkdtemp(pattern)) return;
    folder = pattern;
    const std::string command = std::string("python3 '") + corpusDir() + "/gen-feeds.py' -n 60 -m 50 -o '" +
                                folder.string() + "' > /dev/null";
    if (std::system(command.c_str()) == 0) set = loadFolder(folder);
  }
  ~GeneratedFeeds() {
    std::error_code ec;
    if (!folder.empty()) fs::remove_all(folder, ec);
  }
};

const FeedSet& corpus() {
  static const FeedSet set = loadFolder(fs::path(corpusDir()) / "feeds");
  return set;
}

const FeedSet& generated() {
  static const GeneratedFeeds feeds;
  return feeds.set;
}

const FeedSet& setFor(const benchmark::State& state) { return state.range(0) == 0 ? corpus() : generated(); }

// A benchmark over an empty set measures nothing: it is skipped, saying why.
bool skipWhenEmpty(benchmark::State& state, const FeedSet& set) {
  if (!set.documents.empty()) return false;
  static const std::string missing = "shared corpus not found at " + corpusDir();
  state.SkipWithError(corpusPresent() ? "no documents (gen-feeds.py failed?)" : missing.c_str());
  return true;
}

void noElementStart(void*, const xmlChar*, const xmlChar*, const xmlChar*, int, const xmlChar**, int, int,
                    const xmlChar**) {}
void noElementEnd(void*, const xmlChar*, const xmlChar*, const xmlChar*) {}
void noCharacters(void*, const xmlChar*, int) {}
void noError(void*, xmlErrorPtr) {}

// libxml2 alone: SAX2 with callbacks that do nothing, straight from memory.
void BM_BareSax(benchmark::State& state) {
  const FeedSet& set = setFor(state);
  if (skipWhenEmpty(state, set)) return;
  xmlSAXHandler handler;
  std::memset(&handler, 0, sizeof handler);
  xmlSAXVersion(&handler, 2);
  handler.startElementNs = noElementStart;
  handler.endElementNs = noElementEnd;
  handler.characters = noCharacters;
  handler.ignorableWhitespace = noCharacters;
  handler.cdataBlock = noCharacters;
  handler.comment = nullptr;
  handler.serror = noError;
  for (auto _ : state) {
    for (const auto& document : set.documents) {
      xmlParserCtxtPtr context =
          xmlCreateMemoryParserCtxt(document.data(), static_cast<int>(document.size()));
      std::memcpy(context->sax, &handler, sizeof handler);
      xmlCtxtUseOptions(context, XML_PARSE_NONET);
      xmlParseDocument(context);
      benchmark::DoNotOptimize(context->wellFormed);
      if (context->myDoc) xmlFreeDoc(context->myDoc);
      xmlFreeParserCtxt(context);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * set.bytes));
}

// The dictionary tree alone.
void BM_XMLReader(benchmark::State& state) {
  const FeedSet& set = setFor(state);
  if (skipWhenEmpty(state, set)) return;
  for (auto _ : state) {
    for (const auto& document : set.documents) {
      auto tree = XMLReader::dictionaryForXMLData(document);
      benchmark::DoNotOptimize(tree);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * set.bytes));
}

// What a feed refresh does: the tree, then the feed.
void BM_DictionaryPath(benchmark::State& state) {
  const FeedSet& set = setFor(state);
  if (skipWhenEmpty(state, set)) return;
  const Date now = std::chrono::system_clock::now();
  for (auto _ : state) {
    for (const auto& document : set.documents) {
      auto feed = FeedDocumentParser::parseFeedData(document, now);
      benchmark::DoNotOptimize(feed);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * set.bytes));
}

// The mapping alone, over trees read beforehand.
void BM_ParseResponseDictionary(benchmark::State& state) {
  const FeedSet& set = setFor(state);
  if (skipWhenEmpty(state, set)) return;
  std::vector<XmlDocument> trees;
  for (const auto& document : set.documents) {
    if (auto tree = XMLReader::dictionaryForXMLData(document)) trees.push_back(std::move(*tree));
  }
  const Date now = std::chrono::system_clock::now();
  std::size_t articles = 0;
  for (auto _ : state) {
    articles = 0;
    for (const auto& tree : trees) {
      auto feed = FeedDocumentParser::parseResponseDictionary(tree.root(), now);
      if (feed) articles += feed->articles.size();
      benchmark::DoNotOptimize(feed);
    }
  }
  state.counters["articles"] = static_cast<double>(articles);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * set.bytes));
}

// One feed date through the shared readers (core/Dates), in the forms the generated feeds use.
void BM_InternetDate(benchmark::State& state) {
  static const std::pair<const char*, DateFormatHint> kDates[] = {
      {"Thu, 07 Mar 2024 17:45:00 +0000", DateFormatHint::kRFC822},
      {"Thu, 07 Mar 2024 12:45:00 EST", DateFormatHint::kRFC822},
      {"Thu, 07 Mar 2024 17:45:00 GMT", DateFormatHint::kRFC822},
      {"2024-03-07T11:35:00-05:00", DateFormatHint::kRFC3339},
      {"2024-03-07T15:08:00Z", DateFormatHint::kRFC3339}};
  const auto& [text, hint] = kDates[state.range(0)];
  for (auto _ : state) benchmark::DoNotOptimize(dateFromInternetDateTimeString(text, hint));
  state.SetLabel(text);
}

void BM_RSSParser(benchmark::State& state) {
  const FeedSet& set = setFor(state);
  if (skipWhenEmpty(state, set)) return;
  std::vector<RSSParser> parsers;
  for (const auto& document : set.documents) parsers.push_back(RSSParser::withData(document));
  for (auto _ : state) {
    for (auto& parser : parsers) {
      auto feed = parser.fetch();
      benchmark::DoNotOptimize(feed);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * set.bytes));
}

// Root-relative image links of one entry of 20,000 images, each linked once more: the repair
// is one pass over the HTML.
void BM_FixRelativeImageLinks(benchmark::State& state) {
  std::string html;
  for (int i = 0; i < state.range(0); ++i) {
    const std::string path = "/img/" + std::to_string(i) + ".png";
    html += "<p><img src=\"" + path + "\" alt=\"\"><a href=\"" + path + "\">picture " + std::to_string(i) +
            "</a></p>\n";
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        FeedDocumentParser::fixRelativeLinksInImageTags(html, "https://example.com/post"));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * html.size()));
  state.SetLabel(std::to_string(html.size() / 1000) + " kB");
}

void sets(benchmark::internal::Benchmark* b) {
  b->ArgName("generated")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(1.0);
}

BENCHMARK(BM_BareSax)->Apply(sets);
BENCHMARK(BM_XMLReader)->Apply(sets);
BENCHMARK(BM_DictionaryPath)->Apply(sets);
BENCHMARK(BM_RSSParser)->Apply(sets);
BENCHMARK(BM_ParseResponseDictionary)->Apply(sets);
BENCHMARK(BM_FixRelativeImageLinks)->Arg(20'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InternetDate)->DenseRange(0, 4)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  // Unreadable dates in the corpus would otherwise cost a log line each.
  lectern::Log::setDebugEnabled(false);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!corpusPresent()) {
    std::fprintf(stderr, "shared corpus not found at %s: the corpus and generated sets are skipped\n",
                 corpusDir().c_str());
  }
  std::fprintf(stderr, "corpus: %zu documents, %.1f MB; generated: %zu documents, %.1f MB\n",
               corpus().documents.size(), corpus().bytes / 1e6, generated().documents.size(),
               generated().bytes / 1e6);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
