#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "core/SecretStore.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSecret = "correct horse battery staple";

// Nothing a store says about a failure may carry the password.
void expectNoSecretIn(const Error& error, std::string_view secret = kSecret) {
  EXPECT_EQ(error.description.find(secret), std::string::npos) << error.description;
  EXPECT_EQ(error.recoverySuggestion.find(secret), std::string::npos) << error.recoverySuggestion;
  EXPECT_EQ(error.message().find(secret), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// What every store promises

struct StoreFactory {
  const char* name;
  std::function<std::unique_ptr<SecretStore>(const fs::path& folder)> make;
};

void PrintTo(const StoreFactory& factory, std::ostream* out) { *out << factory.name; }

class SecretStoreContract : public testing::TestWithParam<StoreFactory> {
 protected:
  test::TempDir dir_;
  std::unique_ptr<SecretStore> store_ = GetParam().make(dir_.path());
};

TEST_P(SecretStoreContract, KeepsOnePasswordPerServiceAndAccount) {
  EXPECT_EQ(store_->password(kPasswordServiceName, "feedbin:me").value(), std::nullopt);
  ASSERT_TRUE(store_->setPassword(kPasswordServiceName, "feedbin:me", kSecret));
  ASSERT_TRUE(store_->setPassword(kPasswordServiceName, "pocket:me", "p\u00E4ss w\u00F6rd \U0001F511"));
  ASSERT_TRUE(store_->setPassword("other.service", "feedbin:me", "other"));
  ASSERT_TRUE(store_->setPassword(kPasswordServiceName, "empty", ""));

  EXPECT_EQ(store_->password(kPasswordServiceName, "feedbin:me").value(), kSecret);
  EXPECT_EQ(store_->password(kPasswordServiceName, "pocket:me").value(), "p\u00E4ss w\u00F6rd \U0001F511");
  EXPECT_EQ(store_->password("other.service", "feedbin:me").value(), "other");
  EXPECT_EQ(store_->password(kPasswordServiceName, "empty").value(), "");  // empty is not missing
  EXPECT_EQ(store_->password(kPasswordServiceName, "FEEDBIN:ME").value(), std::nullopt);

  ASSERT_TRUE(store_->setPassword(kPasswordServiceName, "feedbin:me", "changed"));
  EXPECT_EQ(store_->password(kPasswordServiceName, "feedbin:me").value(), "changed");
}

TEST_P(SecretStoreContract, DeletesOnlyWhatItIsAskedToAndToleratesMissingEntries) {
  ASSERT_TRUE(store_->setPassword(kPasswordServiceName, "a", "1"));
  ASSERT_TRUE(store_->setPassword(kPasswordServiceName, "b", "2"));
  ASSERT_TRUE(store_->setPassword("other.service", "a", "3"));
  ASSERT_TRUE(store_->deletePassword(kPasswordServiceName, "a"));
  EXPECT_EQ(store_->password(kPasswordServiceName, "a").value(), std::nullopt);
  EXPECT_EQ(store_->password(kPasswordServiceName, "b").value(), "2");
  EXPECT_EQ(store_->password("other.service", "a").value(), "3");
  EXPECT_TRUE(store_->deletePassword(kPasswordServiceName, "a"));
  EXPECT_TRUE(store_->deletePassword("never.seen", "nobody"));
}

TEST_P(SecretStoreContract, RefusesWhatNoBackendCanKeepWithoutQuotingIt) {
  const std::string withNul = std::string(kSecret) + std::string(1, '\0') + "tail";
  const std::string notUtf8 = std::string(kSecret) + "\xFF";
  for (const auto& [account, password] : {std::pair<std::string, std::string>{"acct", withNul},
                                          {"acct", notUtf8},
                                          {"bad\xFF"
                                           "acct",
                                           std::string(kSecret)}}) {
    const auto stored = store_->setPassword(kPasswordServiceName, account, password);
    ASSERT_FALSE(stored);
    EXPECT_EQ(stored.error().code, kSecretStoreNotStorable);
    expectNoSecretIn(stored.error());
  }
  EXPECT_EQ(store_->password(kPasswordServiceName, "acct").value(), std::nullopt);
}

TEST_P(SecretStoreContract, ConcurrentWritersLoseNothing) {
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        const std::string account = "w" + std::to_string(t) + "-" + std::to_string(i);
        EXPECT_TRUE(store_->setPassword(kPasswordServiceName, account, "p" + account));
      }
    });
  }
  for (auto& writer : writers) writer.join();
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 20; ++i) {
      const std::string account = "w" + std::to_string(t) + "-" + std::to_string(i);
      EXPECT_EQ(store_->password(kPasswordServiceName, account).value(), "p" + account);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Backends, SecretStoreContract,
    testing::Values(StoreFactory{"memory",
                                 [](const fs::path&) { return std::make_unique<MemorySecretStore>(); }},
                    StoreFactory{"file",
                                 [](const fs::path& folder) {
                                   return std::make_unique<FileSecretStore>(folder / "config" /
                                                                            "secrets.json");
                                 }}),
    [](const testing::TestParamInfo<StoreFactory>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The file store

class FileSecretStoreTest : public testing::Test {
 protected:
  fs::perms permissions() const { return fs::status(file_).permissions() & fs::perms::all; }

  test::TempDir dir_;
  fs::path file_ = dir_ / "secrets.json";
  FileSecretStore store_{file_};
};

TEST_F(FileSecretStoreTest, FileIsPrivatePersistentAndInItsDocumentedShape) {
  test::writeFile(file_, R"({"com.quillhq.Lectern": {"fever:me": "written by hand"}})");
  ::chmod(file_.c_str(), 0644);
  EXPECT_EQ(store_.password(kPasswordServiceName, "fever:me").value(), "written by hand");

  ASSERT_TRUE(store_.setPassword(kPasswordServiceName, "feedbin:me", kSecret));
  EXPECT_EQ(permissions(), fs::perms::owner_read | fs::perms::owner_write);

  FileSecretStore reopened(file_);
  EXPECT_EQ(reopened.password(kPasswordServiceName, "feedbin:me").value(), kSecret);
  EXPECT_EQ(reopened.password(kPasswordServiceName, "fever:me").value(), "written by hand");
  ASSERT_TRUE(reopened.deletePassword(kPasswordServiceName, "fever:me"));
  ASSERT_TRUE(reopened.deletePassword(kPasswordServiceName, "feedbin:me"));
  EXPECT_EQ(test::readFile(file_), "{}\n");  // emptied services go too

  test::writeFile(file_, " \n");  // an empty file holds nothing to lose
  EXPECT_EQ(store_.password(kPasswordServiceName, "feedbin:me").value(), std::nullopt);
  EXPECT_TRUE(store_.setPassword(kPasswordServiceName, "feedbin:me", kSecret));
}

TEST_F(FileSecretStoreTest, DamagedFileIsAnErrorAndIsNeverOverwritten) {
  const std::string damaged[] = {"not json", R"({"com.quillhq.Lectern": {"a": "hunter2")",  // cut short
                                 R"(["hunter2"])", R"({"com.quillhq.Lectern": "hunter2"})",
                                 R"({"com.quillhq.Lectern": {"a": 42, "b": "hunter2"}})"};
  for (const auto& contents : damaged) {
    test::writeFile(file_, contents);
    const auto read = store_.password(kPasswordServiceName, "a");
    ASSERT_FALSE(read) << contents;
    EXPECT_EQ(read.error().code, kSecretStoreCorrupt);
    EXPECT_NE(read.error().description.find(file_.string()), std::string::npos);  // says which file
    expectNoSecretIn(read.error(), "hunter2");

    const auto written = store_.setPassword(kPasswordServiceName, "b", kSecret);
    ASSERT_FALSE(written) << contents;
    expectNoSecretIn(written.error());
    EXPECT_FALSE(store_.deletePassword(kPasswordServiceName, "a")) << contents;
    EXPECT_EQ(test::readFile(file_), contents);  // whatever it held is still there to rescue
  }
}

TEST_F(FileSecretStoreTest, FailedWriteKeepsTheOldFileAndKeepsTheSecretOutOfTheError) {
  ASSERT_TRUE(store_.setPassword(kPasswordServiceName, "kept", "old"));
  const std::string before = test::readFile(file_);
  // The temporary file the atomic write needs cannot be made.
  fs::create_directory(file_.string() + ".tmp-" + std::to_string(::getpid()));

  const auto written = store_.setPassword(kPasswordServiceName, "new", kSecret);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code, kSecretStoreUnwritable);
  expectNoSecretIn(written.error());
  EXPECT_EQ(test::readFile(file_), before);
  EXPECT_EQ(store_.password(kPasswordServiceName, "kept").value(), "old");

  FileSecretStore underAFile(file_ / "secrets.json");  // its folder is a regular file
  EXPECT_EQ(underAFile.password(kPasswordServiceName, "x").error().code, kSecretStoreUnreadable);
  const auto refused = underAFile.setPassword(kPasswordServiceName, "x", kSecret);
  ASSERT_FALSE(refused);
  expectNoSecretIn(refused.error());
}

// ---------------------------------------------------------------------------------------------
// Choosing a backend

// A private D-Bus daemon for one test.
enum class BusKind {
  kMute,               // takes connections but never answers a call (its policy lets nothing back)
  kPlain,              // a working bus without a Secret Service
  kWithSecretService,  // offers a Secret Service, which fails to start when asked for
};

class PrivateBus {
 public:
  PrivateBus(const test::TempDir& dir, BusKind kind) {
    const fs::path services = dir / "services";
    fs::create_directories(services);
    if (kind == BusKind::kWithSecretService) {
      test::writeFile(services / "org.freedesktop.secrets.service",
                      "[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/false\n");
    }
    const std::string policy =
        kind == BusKind::kMute
            ? "<allow send_destination=\"*\"/>"
            : "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>";
    test::writeFile(dir / "bus.conf", "<busconfig><type>session</type><listen>unix:dir=" +
                                          dir.path().string() + "</listen><servicedir>" + services.string() +
                                          "</servicedir><policy context=\"default\">" + policy +
                                          "<allow own=\"*\"/></policy></busconfig>");
    const std::string command = "dbus-daemon --config-file=" + (dir / "bus.conf").string() +
                                " --fork --nopidfile --print-address=1 --print-pid=1 2>/dev/null";
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) return;
    char line[512];
    if (std::fgets(line, sizeof line, out) != nullptr) address_ = std::string(line, std::strcspn(line, "\n"));
    if (std::fgets(line, sizeof line, out) != nullptr) pid_ = std::atoi(line);
    ::pclose(out);
  }
  ~PrivateBus() {
    if (pid_ > 0) ::kill(pid_, SIGTERM);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  bool running() const { return pid_ > 0 && !address_.empty(); }
  const std::string& address() const { return address_; }

 private:
  std::string address_;
  pid_t pid_ = 0;
};

TEST(SecretStoreSelection, DeadOrMissingBusesFallBackToTheFile) {
  test::TempDir dir;
  // A socket that accepts and never answers: the probe must give up rather than wait on D-Bus.
  const fs::path silent = dir / "silent.sock";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, silent.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 4), 0);

  const std::vector<std::string> buses = {"", "unix:path=" + (dir / "no-such-bus").string(), "nonsense",
                                          "unix:path=" + silent.string()};
  for (const auto& bus : buses) {
    EXPECT_FALSE(secretServiceAnswers(bus)) << bus;
    const auto store = makeDefaultSecretStore(dir / "secrets.json", bus);
    EXPECT_EQ(store->backendName(), "file") << bus;
  }
  ::close(listener);

  const auto store = makeDefaultSecretStore(dir / "secrets.json", "");
  ASSERT_TRUE(store->setPassword(kPasswordServiceName, "acct", kSecret));
  EXPECT_EQ(FileSecretStore(dir / "secrets.json").password(kPasswordServiceName, "acct").value(), kSecret);
}

TEST(SecretStoreSelection, LiveBusIsAskedForTheSecretService) {
  test::TempDir muteDir, plainDir, offeringDir;
  PrivateBus mute(muteDir, BusKind::kMute);
  PrivateBus plain(plainDir, BusKind::kPlain);
  PrivateBus offering(offeringDir, BusKind::kWithSecretService);
  if (!mute.running() || !plain.running() || !offering.running()) {
    GTEST_SKIP() << "no dbus-daemon for a private bus";
  }

  // A bus that never answers must cost the probe's time limit, not D-Bus's 25 seconds; the
  // test's own time limit would catch a wait on each of these.
  EXPECT_FALSE(secretServiceAnswers(mute.address()));
  for (int i = 0; i < 20; ++i)
    EXPECT_FALSE(secretServiceAnswers(mute.address(), std::chrono::milliseconds(50)));
  EXPECT_FALSE(secretServiceAnswers(plain.address()));
  EXPECT_EQ(makeDefaultSecretStore(plainDir / "secrets.json", plain.address())->backendName(), "file");
  EXPECT_EQ(secretServiceAnswers(offering.address()), secretServiceSupported());
  EXPECT_EQ(makeDefaultSecretStore(offeringDir / "secrets.json", offering.address())->backendName(),
            secretServiceSupported() ? "libsecret" : "file");
}

TEST(SecretStoreSelection, SecretServiceFailuresAreErrorsWithoutTheSecret) {
  if (!secretServiceSupported()) GTEST_SKIP() << "built without libsecret";
  test::TempDir dir;
  PrivateBus bus(dir, BusKind::kWithSecretService);
  if (!bus.running()) GTEST_SKIP() << "no dbus-daemon to run a private bus";
  // libsecret talks to the session bus; here that is a bus whose Secret Service fails to start.
  const char* saved = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const std::string previous = saved != nullptr ? saved : "";
  ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
  const auto store = makeDefaultSecretStore(dir / "secrets.json");
  ASSERT_EQ(store->backendName(), "libsecret");

  const auto written = store->setPassword(kPasswordServiceName, "acct", kSecret);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code, kSecretServiceFailed);
  expectNoSecretIn(written.error());
  EXPECT_EQ(store->password(kPasswordServiceName, "acct").error().code, kSecretServiceFailed);
  EXPECT_EQ(store->deletePassword(kPasswordServiceName, "acct").error().code, kSecretServiceFailed);
  if (saved != nullptr) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", previous.c_str(), 1);
  } else {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
}

TEST(DeferredSecretStore, MakesItsStoreOnFirstUseOnly) {
  int made = 0;
  DeferredSecretStore deferred([&made] {
    ++made;
    return std::make_unique<MemorySecretStore>();
  });
  EXPECT_EQ(made, 0);
  ASSERT_TRUE(deferred.setPassword("s", "a", "pw"));
  EXPECT_EQ(deferred.password("s", "a").value(), "pw");
  EXPECT_EQ(deferred.backendName(), "memory");
  EXPECT_EQ(made, 1);
}

}  // namespace
}  // namespace lectern
