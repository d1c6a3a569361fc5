# One folder per service: its service object (and, as they arrive, its client and sync operation).
# The hosted services' objects are header-only until their clients come. Built into lectern_core.
set(LECTERN_SERVICES_SOURCES
  src/services/localrss/LocalRSSService.cpp
  src/services/smartfolders/SmartFolderService.cpp
)
