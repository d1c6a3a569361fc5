#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/Log.h"

namespace lectern {

// The layer's own threads (the network thread, the processing and callback queues) run code it does
// not own: blocks, streams, parsers of subclasses. An exception escaping such a thread would end the
// program, so each call into that code goes through here and comes back as the exception's text.
template <class Work>
std::optional<std::string> exceptionMessageFrom(Work&& work) {
  try {
    std::forward<Work>(work)();
    return std::nullopt;
  } catch (const std::exception& exception) {
    return std::string(exception.what());
  }
}

// The same for calls whose failure has nowhere to go but the log.
template <class Work>
void runLoggingExceptions(std::string_view category, std::string_view what, Work&& work) {
  if (auto message = exceptionMessageFrom(std::forward<Work>(work))) {
    logError(category, "Exception in {}: {}", what, *message);
  }
}

}  // namespace lectern
