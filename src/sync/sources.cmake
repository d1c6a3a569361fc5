# The synchronisation engine: sync manager, sync operations, the built-in reader's refresh.
set(LECTERN_SYNC_SOURCES
  src/sync/UserNotificationPresenter.cpp
  src/sync/QKNotificationCenter.cpp
  src/sync/QKSyncNotificationCenter.cpp
  src/sync/FeedFetchGroup.cpp
  src/sync/StoryImageDownloader.cpp
  src/sync/SyncOperation.cpp
  src/sync/AggregatorSyncOperation.cpp
  src/sync/SyncOperationFactory.cpp
  src/sync/QKSyncManager.cpp
  src/services/localrss/FeedSyncOperation.cpp
  src/services/feedbin/FeedbinSyncOperation.cpp
  src/services/feedly/FeedlySyncOperation.cpp
  src/services/fever/FeverSyncOperation.cpp
  src/services/feedwrangler/FeedWranglerSyncOperation.cpp
  src/services/newsblur/NewsBlurSyncOperation.cpp
)
