set(LECTERN_APP_SOURCES
  src/app/AppEnvironment.cpp
  src/app/QKApplicationController.cpp
)
# The program itself: argument parsing and presentation only.
set(LECTERN_CLI_SOURCES
  src/app/cli/main.cpp
  src/app/cli/Cli.cpp
  src/app/cli/FeedCommands.cpp
  src/app/cli/ContentCommands.cpp
  src/app/cli/LibraryCommands.cpp
  src/app/cli/AccountCommands.cpp
  src/app/cli/SignInCommands.cpp
  src/app/cli/Presentation.cpp
  src/app/cli/DiscoverCommands.cpp
  src/app/cli/OpmlCommands.cpp
  src/app/cli/SyncCommands.cpp
)
