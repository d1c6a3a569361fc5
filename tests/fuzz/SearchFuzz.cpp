// The smart-folder predicate language and the search field's language, down to the SQL they
// compile to. Predicate text written back out must read back to the same predicate.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "smart/Predicate.h"
#include "smart/QKSmartStreamExpression.h"
#include "smart/SqlCompiler.h"

namespace {

void compile(const lectern::Predicate& predicate) {
  if (!lectern::validateKeyPaths(predicate)) return;
  (void)lectern::compileToSql(predicate, lectern::SqlCompileOptions{1.0e9, true});
  (void)lectern::compileToSql(predicate, lectern::SqlCompileOptions{1.0e9, false});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lectern::fuzz::quietLog();
  lectern::fuzz::FuzzInput input(data, size);
  const bool asSearch = input.choose(2) == 1;
  const std::string text(input.rest());

  if (asSearch) {
    const lectern::QKSmartStreamExpression expression(text);
    if (auto predicate = expression.predicate()) compile(*predicate);
    for (const auto& term : expression.terms()) (void)lectern::QKSmartStreamExpression::unquotedStringFromTerm(term);
    (void)lectern::searchIndexQuery(text, {"title", "preview_text"});
    return 0;
  }
  auto predicate = lectern::parsePredicate(text);
  if (!predicate) return 0;
  compile(*predicate);
  const std::string written = lectern::formatPredicate(*predicate);
  auto again = lectern::parsePredicate(written);
  if (!again) lectern::fuzz::broken("written predicate text does not read back", written);
  if (!(*again == *predicate)) lectern::fuzz::broken("predicate text reads back as another predicate", written);
  return 0;
}
