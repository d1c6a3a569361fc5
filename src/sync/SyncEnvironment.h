#pragma once

namespace lectern {

class Clock;
class MainQueue;
class NetworkSession;
class QKDataManager;
class Reachability;
class UserDefaults;

// The collaborators the sync manager and every sync operation borrow. Made by the program (or a
// test); everything here outlives the sync manager and its operations.
struct SyncEnvironment {
  QKDataManager& dataManager;
  UserDefaults& defaults;
  MainQueue& mainQueue;
  Reachability& reachability;
  const Clock& clock;
  NetworkSession& session;  // feed clients, article pages and story images go through it
};

}  // namespace lectern
