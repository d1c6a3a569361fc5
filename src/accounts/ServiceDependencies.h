#pragma once

namespace lectern {

class Clock;
class MainQueue;
class NetworkSession;

// What service objects borrow from the program: the main queue their completions run on, the
// clock, and the network session their clients (and the built-in reader's fetches) go through.
// Everything here outlives the data manager the service factory is registered with.
struct ServiceDependencies {
  MainQueue& mainQueue;
  const Clock& clock;
  NetworkSession* session = nullptr;  // none: nothing can be fetched, every fetch fails with an Error
};

}  // namespace lectern
