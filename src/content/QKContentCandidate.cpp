#include "content/QKContentCandidate.h"

#include <fmt/format.h>

#include "content/HtmlDocument.h"
#include "core/Error.h"

namespace lectern {

QKContentCandidate::QKContentCandidate() {
  throw InternalInconsistency(std::string(kMustUseInitWithElementScore));
}

std::string QKContentCandidate::description() const {
  return fmt::format("Element: {}... [Score: {}]", HtmlDocument::serialize(element_), score_);
}

}  // namespace lectern
