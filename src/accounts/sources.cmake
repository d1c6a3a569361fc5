# Accounts: the service class tree's bases, the factory, start-up and life-cycle steps, and the
# account commands as library calls. Built into lectern_core.
set(LECTERN_ACCOUNTS_SOURCES
  src/accounts/ServiceBase.cpp
  src/accounts/FeedService.cpp
  src/accounts/ReadLaterService.cpp
  src/accounts/ServiceFactory.cpp
  src/accounts/AccountLifecycle.cpp
  src/accounts/TokenSignIn.cpp
  src/accounts/AccountCommands.cpp
  src/accounts/BuiltInReader.cpp
  src/accounts/Subscriptions.cpp
  src/accounts/KeptArticles.cpp
)
