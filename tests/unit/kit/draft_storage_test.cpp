#include "tamsel/kit/draft_storage.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/json.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tamsel/base/atomic_file.hpp"

namespace tamsel::kit {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class DraftStorageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tamsel-drafts-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder = pattern;
    file = folder / "drafts.json";
  }
  void TearDown() override { fs::remove_all(folder); }

  // A long debounce so that only explicit flushes (or destruction) write, unless a test wants
  // otherwise.
  DraftStorage::Configuration config(std::chrono::milliseconds debounce = 1h) const {
    DraftStorage::Configuration c;
    c.file = file;
    c.debounce = debounce;
    return c;
  }

  std::string fileText() const {
    std::string text;
    EXPECT_TRUE(base::readFile(file, text));
    return text;
  }

  std::vector<fs::path> setAsideFiles() const {
    std::vector<fs::path> out;
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().filename().string().rfind("drafts.json.bad-", 0) == 0)
        out.push_back(entry.path());
    }
    return out;
  }

  fs::path folder;
  fs::path file;
};

// Waits (generously) for the writer thread to reach `count` writes.
bool waitForWrites(const DraftStorage& storage, std::size_t count) {
  for (int i = 0; i < 500 && storage.writeCount() < count; ++i) std::this_thread::sleep_for(20ms);
  return storage.writeCount() >= count;
}

TEST_F(DraftStorageTest, PersistsTextsAndOrderAcrossInstances) {
  {
    DraftStorage storage(config());
    storage.set("first \"quoted\"\nline two", "session:a");
    storage.set("zweite Zeile — ünïcödé 🙂", "pending:b");
    storage.set("third", "new:agent");
    storage.set("first again", "session:a");  // now the newest
    storage.flushNow();
    EXPECT_EQ(storage.writeCount(), 1u);
  }
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  const auto json = boost::json::parse(fileText());
  EXPECT_EQ(json.at("version"), 1);
  EXPECT_EQ(json.at("entries").as_array().size(), 3u);

  DraftStorage reloaded(config());
  EXPECT_EQ(reloaded.keys(), (std::vector<std::string>{"pending:b", "new:agent", "session:a"}));
  EXPECT_EQ(reloaded.draft("session:a"), "first again");
  EXPECT_EQ(reloaded.draft("pending:b"), "zweite Zeile — ünïcödé 🙂");
  EXPECT_FALSE(reloaded.draft("missing"));
  EXPECT_FALSE(reloaded.setAsidePath());
}

TEST_F(DraftStorageTest, EmptyTextRemovesAndUnchangedStateWritesNothing) {
  DraftStorage storage(config());
  storage.flushNow();
  EXPECT_EQ(storage.writeCount(), 0u);  // nothing changed since load
  storage.set("", "never-there");
  storage.set("text", "");
  storage.flushNow();
  EXPECT_EQ(storage.writeCount(), 0u);

  storage.set("hello", "k");
  storage.set("hello", "k");  // re-saving the newest draft
  storage.flushNow();
  storage.flushNow();
  EXPECT_EQ(storage.writeCount(), 1u);

  storage.set("", "k");
  EXPECT_FALSE(storage.draft("k"));
  EXPECT_TRUE(storage.keys().empty());
  storage.flushNow();
  EXPECT_EQ(storage.writeCount(), 2u);
  EXPECT_TRUE(boost::json::parse(fileText()).at("entries").as_array().empty());
}

TEST_F(DraftStorageTest, TheKeyPastTheBoundEvictsTheLeastRecentlyWritten) {
  DraftStorage storage(config());
  for (int i = 0; i < 200; ++i) storage.set("text " + std::to_string(i), "k" + std::to_string(i));
  storage.set("rewritten", "k0");  // k0 becomes the newest, so k1 is now the oldest
  EXPECT_EQ(storage.keys().size(), 200u);
  storage.set("one too many", "k200");
  EXPECT_EQ(storage.keys().size(), 200u);
  EXPECT_FALSE(storage.draft("k1"));
  EXPECT_EQ(storage.draft("k0"), "rewritten");
  EXPECT_EQ(storage.draft("k2"), "text 2");
  EXPECT_EQ(storage.keys().front(), "k2");
  EXPECT_EQ(storage.keys().back(), "k200");
}

TEST_F(DraftStorageTest, OrphanedPendingDraftsGoBeforeAnyRealOne) {
  DraftStorage storage(config());
  storage.set("a session's draft", "session:oldest");
  for (int i = 0; i < 150; ++i) storage.set("orphan", "pending:" + std::to_string(i));
  for (int i = 0; i < 49; ++i) storage.set("real", "session:" + std::to_string(i));
  storage.set("typed now", "pending:current");  // the bound is passed: an orphan goes
  EXPECT_EQ(storage.draft("session:oldest"), "a session's draft");
  EXPECT_FALSE(storage.draft("pending:0"));
  EXPECT_EQ(storage.draft("pending:current"), "typed now") << "never the key just written";
  for (int i = 0; i < 150; ++i) storage.set("real", "session:more" + std::to_string(i));
  EXPECT_EQ(storage.draft("session:oldest"), "a session's draft");
  EXPECT_EQ(storage.draft("pending:current"), std::nullopt) << "the last orphan went too";
  storage.set("real", "session:one more");
  EXPECT_FALSE(storage.draft("session:oldest")) << "with no orphan left, the oldest goes";
}

TEST_F(DraftStorageTest, ABurstOfSetsIsOneWriteAfterTheDebounce) {
  DraftStorage storage(config(500ms));
  for (int i = 0; i < 10; ++i) storage.set("typing " + std::to_string(i), "session:a");
  ASSERT_TRUE(waitForWrites(storage, 1));
  std::this_thread::sleep_for(800ms);
  EXPECT_EQ(storage.writeCount(), 1u);
  EXPECT_NE(fileText().find("typing 9"), std::string::npos);
}

TEST_F(DraftStorageTest, TheDebounceFollowsTheInjectedClock) {
  auto offset = std::make_shared<std::atomic<std::int64_t>>(0);
  const auto start = std::chrono::steady_clock::now();
  auto c = config(500ms);
  c.clock = [offset, start] { return start + std::chrono::milliseconds(offset->load()); };
  DraftStorage storage(c);

  for (int i = 0; i < 10; ++i) {  // ten sets, 40 ms apart, in the storage's time
    storage.set("burst one " + std::to_string(i), "session:a");
    *offset += 40;
  }
  // The clock stands still: however long we wait in real time, the flush is not due.
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(storage.writeCount(), 0u);
  // Past the first set's debounce but not the last one's: every set pushed the flush back.
  *offset = 700;
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(storage.writeCount(), 0u);

  *offset = 1000;
  ASSERT_TRUE(waitForWrites(storage, 1));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(storage.writeCount(), 1u);
  EXPECT_NE(fileText().find("burst one 9"), std::string::npos);

  storage.set("burst two", "session:a");
  *offset += 600;
  ASSERT_TRUE(waitForWrites(storage, 2));
  EXPECT_NE(fileText().find("burst two"), std::string::npos);
}

TEST_F(DraftStorageTest, DestructionFlushesWhatIsPending) {
  {
    DraftStorage storage(config());  // the debounced write would come an hour later
    storage.set("typed just before quitting", "session:a");
    EXPECT_FALSE(fs::exists(file));
  }
  DraftStorage reloaded(config());
  EXPECT_EQ(reloaded.draft("session:a"), "typed just before quitting");
}

TEST_F(DraftStorageTest, RekeyMovesADraftAndKeepsItsPlace) {
  {
    DraftStorage storage(config());
    storage.set("older", "session:x");
    storage.set("typed before the session existed", "pending:p1");
    storage.set("stale text", "session:real");
    storage.set("newest", "session:y");
    storage.rekey("pending:p1", "session:real");
    storage.rekey("pending:missing", "session:z");
    EXPECT_EQ(storage.keys(), (std::vector<std::string>{"session:x", "session:real", "session:y"}));
    EXPECT_EQ(storage.draft("session:real"), "typed before the session existed");
    EXPECT_FALSE(storage.draft("pending:p1"));
    EXPECT_FALSE(storage.draft("session:z"));
  }
  DraftStorage reloaded(config());
  EXPECT_EQ(reloaded.draft("session:real"), "typed before the session existed");
  EXPECT_EQ(reloaded.keys().size(), 3u);
}

TEST_F(DraftStorageTest, ABadFileIsKeptAsideAndNeverOverwritten) {
  const std::vector<std::string> badFiles = {
      "{\"version\":1,\"entries\":[{\"key\":\"a\",\"text\":\"cut off",
      "{\"version\":7,\"entries\":[]}",
      "{\"version\":1,\"entries\":[{\"key\":\"a\",\"text\":3}]}",
      "[]",
      "",
  };
  for (const auto& bad : badFiles) {
    for (const auto& old : setAsideFiles()) fs::remove(old);
    base::writeFileAtomically(file, bad);
    {
      DraftStorage storage(config());
      EXPECT_TRUE(storage.keys().empty()) << bad;
      ASSERT_TRUE(storage.setAsidePath()) << bad;
      EXPECT_EQ(storage.setAsidePath()->parent_path(), folder);
      storage.set("new draft", "session:a");
    }
    const auto aside = setAsideFiles();
    ASSERT_EQ(aside.size(), 1u) << bad;
    std::string kept;
    ASSERT_TRUE(base::readFile(aside.front(), kept));
    EXPECT_EQ(kept, bad);
    DraftStorage reloaded(config());
    EXPECT_EQ(reloaded.draft("session:a"), "new draft") << bad;
  }
}

TEST_F(DraftStorageTest, LongDraftsAreCutAtACharacterBoundary) {
  auto c = config();
  c.maxLengthPerEntry = 5;
  {
    DraftStorage storage(c);
    storage.set("héllo wörld", "accents");       // é is two bytes
    storage.set("ab🙂🙂🙂🙂", "emoji");  // four-byte characters
    storage.set("日本語です", "exact");          // exactly five three-byte characters
    EXPECT_EQ(storage.draft("accents"), "héllo");
    EXPECT_EQ(storage.draft("emoji"), "ab🙂🙂🙂");
    EXPECT_EQ(storage.draft("exact"), "日本語です");
    // Broken bytes would make the whole file undecodable; they become U+FFFD instead.
    storage.set(std::string("a\xC3") + "b\xFF", "broken");
    EXPECT_EQ(storage.draft("broken"), "a\uFFFDb\uFFFD");
  }
  DraftStorage reloaded(c);
  EXPECT_FALSE(reloaded.setAsidePath());
  EXPECT_EQ(reloaded.draft("emoji"), "ab🙂🙂🙂");
  EXPECT_EQ(reloaded.draft("broken"), "a\uFFFDb\uFFFD");

  EXPECT_EQ(DraftStorage::truncatedToCharacters("\xE2\x82\xAC\xE2\x82\xAC", 1), "\xE2\x82\xAC");
  // A lead byte whose sequence is cut short is one broken character, not a swallowed neighbour.
  EXPECT_EQ(DraftStorage::truncatedToCharacters("\xE2\x82x", 10), "\uFFFDx");
  EXPECT_EQ(DraftStorage::truncatedToCharacters("\xED\xA0\x80", 10),
            "\uFFFD\uFFFD\uFFFD");  // a surrogate
  EXPECT_EQ(DraftStorage::truncatedToCharacters("abc", 0), "");
}

TEST_F(DraftStorageTest, AFileOverTheBoundsLoadsItsNewestEntriesCut) {
  boost::json::array entries;
  for (int i = 0; i < 5; ++i) {
    entries.push_back(
        boost::json::object{{"key", "k" + std::to_string(i)}, {"text", "0123456789"}});
  }
  base::writeFileAtomically(
      file, boost::json::serialize(boost::json::object{{"version", 1}, {"entries", entries}}));
  auto c = config();
  c.maxEntries = 3;
  c.maxLengthPerEntry = 4;
  DraftStorage storage(c);
  EXPECT_EQ(storage.keys(), (std::vector<std::string>{"k2", "k3", "k4"}));
  EXPECT_EQ(storage.draft("k4"), "0123");
}

}  // namespace
}  // namespace tamsel::kit
