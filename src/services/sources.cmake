# One folder per service: its service object (and, as they arrive, its client and sync operation).
# A hosted service's object is header-only until its client comes. Built into lectern_core.
set(LECTERN_SERVICES_SOURCES
  src/services/ServiceRequests.cpp
  src/services/feedbin/QKFeedbinClient.cpp
  src/services/feedbin/FeedbinService.cpp
  src/services/feedly/QKFeedlyClient.cpp
  src/services/feedly/FeedlyService.cpp
  src/services/feedly/FeedlySignIn.cpp
  src/services/fever/QKFeverClient.cpp
  src/services/fever/FeverService.cpp
  src/services/feedwrangler/QKFeedWranglerClient.cpp
  src/services/feedwrangler/FeedWranglerService.cpp
  src/services/newsblur/QKNewsBlurClient.cpp
  src/services/newsblur/NewsBlurService.cpp
  src/services/instapaper/QKInstapaperClient.cpp
  src/services/instapaper/InstapaperService.cpp
  src/services/pinboard/PinboardPacer.cpp
  src/services/pinboard/QKPinboardClient.cpp
  src/services/pinboard/PinboardService.cpp
  src/services/pocket/QKPocketClient.cpp
  src/services/pocket/PocketService.cpp
  src/services/pocket/PocketSignIn.cpp
  src/services/localrss/LocalRSSService.cpp
  src/services/smartfolders/SmartFolderService.cpp
)
