// A whole sync of one hosted account whose server answers with the input: each service's
// mapping of JSON (or qline, or XML) answers and the shape checks of its sync steps, through the
// real network layer over a canned transport. The first byte picks the service; the rest are
// the answers in the order the sync asks for them (see AnswerScript).
//
// Seeds: the services tests record their mock servers' answers when LECTERN_RECORD_ANSWERS
// names a folder (tests/fuzz/seeds/services came from there).
#include <cstddef>
#include <cstdint>
#include <chrono>
#include <optional>
#include <string>

#include "FuzzLibrary.h"
#include "FuzzSupport.h"
#include "ServicesFuzz.h"
#include "accounts/AccountCommands.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  lectern::fuzz::FuzzInput input(data, size);
  const auto& service = lectern::fuzz::kFuzzedServices[input.choose(std::size(lectern::fuzz::kFuzzedServices))];
  lectern::fuzz::AnswerScript script(input.parts());
  lectern::fuzz::FuzzLibrary library([&script](const lectern::HttpRequest& request) { return script.next(request); });
  const auto request = lectern::fuzz::fuzzAccountRequest(service, "http://127.0.0.1:9/");
  if (!service.signsIn) {
    auto account = lectern::createAccount(library.context(), request);
    if (!account) lectern::fuzz::broken("the account cannot be made", account.error().message());
    library.sync(*account);
    return 0;
  }
  // The sign-in reads the first answers; a refused one ends the input there.
  std::optional<lectern::Result<std::shared_ptr<lectern::Account>>> added;
  lectern::addAccount(library.context(), request,
                      [&](lectern::Result<std::shared_ptr<lectern::Account>> result) { added = std::move(result); });
  while (!library.mainQueue().runUntil([&] { return added.has_value(); }, std::chrono::seconds(60))) {
  }
  if (*added) library.sync(**added);
  return 0;
}
