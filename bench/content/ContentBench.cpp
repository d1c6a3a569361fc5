// Milliseconds per page for readable-content extraction (decoding, parsing, scoring, cleaning and
// serialising; not reading the file) over the real article pages of the shared corpus.
// Each page runs once per iteration; a page's time is the median of its runs, and the counters
// give the median over the pages and their sum. LECTERN_BENCH_PAGES and LECTERN_BENCH_REPEATS
// override the folder and the number of runs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "content/QKContentParser.h"
#include "core/Log.h"

namespace {

using lectern::QKContentParser;

struct Page {
  std::string name;
  std::string bytes;
};

std::vector<Page> loadPages() {
  const char* folder = std::getenv("LECTERN_BENCH_PAGES");
  const std::filesystem::path root = folder ? folder : LECTERN_CORPUS_DIR "/pages";
  std::vector<Page> pages;
  std::error_code ec;
  if (!std::filesystem::is_directory(root, ec)) {
    std::fprintf(stderr, "shared corpus not found at %s: the corpus benchmarks are skipped\n", root.c_str());
    return pages;
  }
  for (const auto& entry : std::filesystem::directory_iterator(root)) {
    if (entry.path().extension() != ".html") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    pages.push_back({entry.path().filename().string(), bytes.str()});
  }
  std::sort(pages.begin(), pages.end(), [](const Page& a, const Page& b) { return a.name < b.name; });
  return pages;
}

const std::vector<Page>& corpus() {
  static const std::vector<Page> pages = loadPages();
  return pages;
}

int repeats() {
  const char* value = std::getenv("LECTERN_BENCH_REPEATS");
  const int n = value ? std::atoi(value) : 5;
  return n > 0 ? n : 5;
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

enum class Step { kParse, kExtract };

double threadCpuMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

struct Timing {
  double wallMs = 0;
  double cpuMs = 0;
};

Timing timeExtraction(const std::string& bytes, Step step) {
  const auto start = std::chrono::steady_clock::now();
  const double cpuStart = threadCpuMilliseconds();
  auto parser = QKContentParser::initWithData(bytes);
  if (parser && step == Step::kExtract) benchmark::DoNotOptimize(parser->fetchContent());
  const double cpuEnd = threadCpuMilliseconds();
  const auto end = std::chrono::steady_clock::now();
  return {std::chrono::duration<double, std::milli>(end - start).count(), cpuEnd - cpuStart};
}

void runCorpus(benchmark::State& state, Step step) {
  const auto& pages = corpus();
  if (pages.empty()) {
    state.SkipWithError("no pages: shared corpus not found");
    return;
  }
  std::vector<std::vector<double>> wallRuns(pages.size());
  std::vector<std::vector<double>> cpuRuns(pages.size());
  for (auto _ : state) {
    for (size_t i = 0; i < pages.size(); ++i) {
      const Timing timing = timeExtraction(pages[i].bytes, step);
      wallRuns[i].push_back(timing.wallMs);
      cpuRuns[i].push_back(timing.cpuMs);
    }
  }
  const auto summarise = [&](const std::vector<std::vector<double>>& runs, const std::string& prefix) {
    std::vector<double> perPage;
    for (const auto& pageRuns : runs) perPage.push_back(median(pageRuns));
    double total = 0;
    for (double ms : perPage) total += ms;
    state.counters[prefix + "median_ms"] = median(perPage);
    state.counters[prefix + "total_ms"] = total;
  };
  state.counters["pages"] = static_cast<double>(pages.size());
  summarise(wallRuns, "");
  summarise(cpuRuns, "cpu_");
}

// Everything the extractor does with a page.
void BM_ExtractCorpus(benchmark::State& state) { runCorpus(state, Step::kExtract); }
// Decoding and libxml2's parse alone: the share of the time the rules themselves do not control.
void BM_ParseCorpus(benchmark::State& state) { runCorpus(state, Step::kParse); }

// One page of about 20 MB: many sections of long paragraphs.
void BM_Extract20MBPage(benchmark::State& state) {
  std::string paragraph = "<p>";
  while (paragraph.size() < 2000)
    paragraph += "Text of a very long page, with commas, and <a href=\"/l\">a link</a>. ";
  paragraph += "</p>";
  std::string page = "<html><head><title>Wide</title></head><body>";
  for (int section = 0; page.size() < 20'000'000; ++section) {
    page += "<div class=\"entry\">";
    for (int i = 0; i < 20; ++i) page += paragraph;
    page += "</div>";
  }
  page += "</body></html>";
  for (auto _ : state) benchmark::DoNotOptimize(timeExtraction(page, Step::kExtract));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(page.size()));
}

}  // namespace

int main(int argc, char** argv) {
  // Debug lines have no reader here; formatting them would only add noise to the figures.
  lectern::Log::setDebugEnabled(false);
  benchmark::RegisterBenchmark("BM_ExtractCorpus", BM_ExtractCorpus)
      ->Iterations(repeats())
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_ParseCorpus", BM_ParseCorpus)
      ->Iterations(repeats())
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_Extract20MBPage", BM_Extract20MBPage)
      ->Iterations(3)
      ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
