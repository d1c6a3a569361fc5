#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "StoreTestSupport.h"
#include "core/Log.h"
#include "store/Bookmark.h"
#include "store/ModelVersion.h"
#include "store/SqliteDatabase.h"

namespace lectern::test {
namespace {

class DataManagerTest : public StoreTest {
 protected:
  // The store's bytes must not change when opening it fails.
  void expectRefusedUntouched(int code, std::string_view descriptionStart) {
    const std::string before = readFile(paths_.storeFile());
    auto opened = manager_->managedObjectContext();
    ASSERT_FALSE(opened);
    EXPECT_EQ(opened.error().code, code) << opened.error().message();
    EXPECT_TRUE(opened.error().description.starts_with(descriptionStart)) << opened.error().description;
    EXPECT_EQ(readFile(paths_.storeFile()), before);
    EXPECT_FALSE(std::filesystem::exists(paths_.storeFile().string() + "-wal"));
  }
};

TEST_F(DataManagerTest, AFileWhereTheApplicationFolderShouldBe) {
  ScopedLogCapture log;
  writeFile(paths_.applicationFolder, "not a folder");
  auto opened = manager_->managedObjectContext();
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().domain, "com.quillhq.Lectern");
  EXPECT_EQ(opened.error().code, 101);
  EXPECT_EQ(opened.error().description, "Expected a folder to store application data, found a file (" +
                                            paths_.applicationFolder.string() + ").");
  EXPECT_TRUE(log.contains("Fatal error while creating persistent store: "));
  EXPECT_EQ(readFile(paths_.applicationFolder), "not a folder");
}

TEST_F(DataManagerTest, AFileThatIsNotALibraryIsLeftAlone) {
  std::filesystem::create_directories(paths_.applicationFolder);
  writeFile(paths_.storeFile(), "these are my notes, not a database");
  expectRefusedUntouched(104, "The library file is not a Lectern library");
}

TEST_F(DataManagerTest, AnotherProgramsDatabaseIsLeftAlone) {
  std::filesystem::create_directories(paths_.applicationFolder);
  {
    auto db = SqliteDatabase::open(paths_.storeFile(), SqliteDatabase::OpenMode::kReadWriteCreate,
                                   std::chrono::seconds(1))
                  .value();
    ASSERT_TRUE(db->execute("CREATE TABLE notes (text TEXT); INSERT INTO notes VALUES ('mine')"));
  }
  expectRefusedUntouched(104, "The library file is not a Lectern library");
}

TEST_F(DataManagerTest, ALibraryOfANewerVersionIsRefusedUntouched) {
  writeStoreOfVersion(paths_.storeFile(), currentModelVersion(), {"PRAGMA user_version = 42"});
  EXPECT_TRUE(manager_->isMigrationNeeded());
  auto migrated = manager_->migrate(nullptr);
  ASSERT_FALSE(migrated);
  EXPECT_TRUE(
      migrated.error().description.starts_with("The library was written by a newer version of Lectern"));
  expectRefusedUntouched(105, "The library was written by a newer version of Lectern");
}

TEST_F(DataManagerTest, AFolderWhereTheLibraryFileShouldBe) {
  std::filesystem::create_directories(paths_.storeFile());
  auto opened = manager_->managedObjectContext();
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().description,
            "Expected the library file, found a folder (" + paths_.storeFile().string() + ").");
  EXPECT_TRUE(std::filesystem::is_directory(paths_.storeFile()));
}

// Makes a file read-only for as long as it lives: by its mode, or for root (who may write any
// file) with the immutable attribute.
class ReadOnlyFile {
 public:
  explicit ReadOnlyFile(std::filesystem::path path) : path_(std::move(path)) {
    if (::geteuid() != 0) {
      made_ = ::chmod(path_.c_str(), 0444) == 0;
    } else {
      made_ = setImmutable(true);
    }
  }
  ~ReadOnlyFile() {
    if (!made_) return;
    if (::geteuid() != 0) {
      ::chmod(path_.c_str(), 0644);
    } else {
      setImmutable(false);
    }
  }
  bool made() const { return made_; }

 private:
  bool setImmutable(bool on) {
    const int fd = ::open(path_.c_str(), O_RDONLY);
    if (fd < 0) return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return done;
  }
  std::filesystem::path path_;
  bool made_ = false;
};

TEST_F(DataManagerTest, AReadOnlyLibraryOffersCloseAndReveal) {
  writeStoreOfVersion(paths_.storeFile(), currentModelVersion(), {});
  const std::string before = readFile(paths_.storeFile());
  ReadOnlyFile readOnly(paths_.storeFile());
  if (!readOnly.made()) GTEST_SKIP() << "cannot make a file read-only here";
  auto opened = manager_->managedObjectContext();
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().info(QKDataManager::kRecoveryOptionsKey), "Close\nReveal in Files...");
  std::vector<std::filesystem::path> revealed;
  manager_->attemptRecoveryFromError(opened.error(), 0, [&](const auto& path) { revealed.push_back(path); });
  manager_->attemptRecoveryFromError(opened.error(), 1, [&](const auto& path) { revealed.push_back(path); });
  EXPECT_EQ(revealed, std::vector<std::filesystem::path>{paths_.storeFile()});
  EXPECT_EQ(readFile(paths_.storeFile()), before);
}

TEST_F(DataManagerTest, ANewLibraryIsCreatedAndReopenedWithoutMigration) {
  EXPECT_FALSE(manager_->isMigrationNeeded());  // nothing there yet
  makeAccount("localrss");
  manager_.reset();
  QKDataManager reopened(paths_, defaults_, mainQueue_, clock_, reachability_);
  EXPECT_FALSE(reopened.isMigrationNeeded());
  auto context = reopened.managedObjectContext();
  ASSERT_TRUE(context);
  EXPECT_NE(Account::localRSSAccount(**context).value(), nullptr);
}

// Whether some other process holds a read lock on the byte range SQLite's shared locks use.
bool anotherProcessHoldsSqliteSharedLock(const std::filesystem::path& file) {
  const pid_t child = ::fork();
  if (child == 0) {
    const int fd = ::open(file.c_str(), O_RDONLY);
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    probe.l_start = 0x40000002;  // SQLite's shared byte range starts two bytes after its pending byte
    probe.l_len = 510;
    const bool held = fd >= 0 && ::fcntl(fd, F_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
    ::_exit(held ? 0 : 1);
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(DataManagerTest, CheckingTheVersionKeepsTheLocksOfOpenConnections) {
  // Regression (hardening issue): the version check read the library with a file stream and closed
  // it, which dropped every SQLite lock the process held on the file. A command closing its own
  // connection then took itself for the last user and reset the log under a running sync.
  makeAccount("localrss");
  ASSERT_TRUE(anotherProcessHoldsSqliteSharedLock(paths_.storeFile()));
  EXPECT_FALSE(manager_->isMigrationNeeded());
  EXPECT_TRUE(anotherProcessHoldsSqliteSharedLock(paths_.storeFile()));
}

TEST_F(DataManagerTest, SavingPostsItsOutcome) {
  ScopedLogCapture log;
  std::vector<std::string> posted;
  manager_->addObserver([&](std::string_view name) { posted.emplace_back(name); });
  auto account = makeAccount("localrss");  // saved through the context: no notification
  EXPECT_TRUE(manager_->save());           // nothing to save: nothing posted
  account->setTitle("Mine");
  EXPECT_TRUE(manager_->save());
  // A bookmark of an account another context deleted meanwhile cannot be saved.
  std::thread worker([&] {
    auto background = manager_->newBackgroundContext().value();
    background->deleteObject(*background->existingObject<Account>(account->objectID()).value());
    ASSERT_TRUE(background->save());
  });
  worker.join();
  auto orphan = context().insertNewObject<Bookmark>();
  orphan->setAccount(*account);
  EXPECT_FALSE(manager_->save());
  EXPECT_EQ(posted, (std::vector<std::string>{"QKDataManagerDidSaveNotification",
                                              "QKDataManagerDidSaveFailedNotification"}));
  EXPECT_TRUE(log.contains("Error while saving: "));
  EXPECT_FALSE(context().hasChanges());  // the failed changes were rolled back
}

TEST_F(DataManagerTest, ChangesAreSavedWhenTheManagerGoesAway) {
  auto account = makeAccount("localrss");
  account->setTitle("unsaved until shutdown");
  account.reset();
  manager_.reset();
  EXPECT_EQ(queryStore(paths_.storeFile(), "SELECT title FROM Account"),
            std::vector<std::string>{"unsaved until shutdown"});
}

}  // namespace
}  // namespace lectern::test
