// OPML import into the built-in reader of a fresh library, then export of what was imported. A
// file that is not OPML is an error; anything else must import without breaking the library.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzLibrary.h"
#include "FuzzSupport.h"
#include "accounts/BuiltInReader.h"
#include "feeds/OPMLViewController.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  // Importing fetches nothing; a request would be a fault of its own and gets nothing useful.
  lectern::fuzz::FuzzLibrary library([](const lectern::HttpRequest&) {
    lectern::CannedTransport::Answer answer;
    answer.statusCode = 404;
    return answer;
  });
  auto account = lectern::ensureLocalRSSAccount(library.context());
  if (!account) lectern::fuzz::broken("no built-in reader", account.error().message());
  lectern::OPMLViewController controller(*account);
  const std::string document(reinterpret_cast<const char*>(data), size);
  if (controller.importOPMLFromData(document)) {
    auto written = controller.exportOPMLDocument();
    if (!written) lectern::fuzz::broken("an imported library does not export", written.error().message());
  }
  return 0;
}
