#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/Tasks.h>
#include "QEVMemoryPruner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MemoryTestSupport.h"
#include "ThrowsMessage.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <system_error>

namespace fs = std::filesystem;
using qevr::testing::throwsWithMessage;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string textOf(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}
QEVRUUID uuid(std::string_view text) {
  return QEVRUUID::parse(text).value();
}

// `count` taps with whole-second dates, "/" and non-ASCII text, and
// metadata that compresses well but not to nothing.
QEVMemoryEventChunk makeChunk(const QEVRUUID& id, int count, QEVRDate createdAt = {}) {
  QEVMemoryEventChunk chunk{
      id, QEVRUUID::random(), createdAt, createdAt.addingSeconds(count), {}, count, 1};
  for (int i = 0; i < count; ++i) {
    chunk.events.push_back({QEVRUUID::random(),
                            QEVMemoryEventType::buttonTap,
                            createdAt.addingSeconds(i),
                            chunk.sessionId,
                            "Écran d’accueil/2",
                            "cart.checkoutButton",
                            {{"index", i}, {"ratio", 0.25 * i}},
                            static_cast<std::uint64_t>(i) + 1});
  }
  return chunk;
}

// What a call threw, as one comparable line.
std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const qevr::json::DecodingError& e) {
    return "decoding " + describe(e);
  } catch (const QEVCompressionError& e) {
    return std::string("compression ") + e.what();
  } catch (const std::system_error& e) {
    return "errno " + std::to_string(e.code().value());
  } catch (const QEVRCancellationError&) {
    return "cancelled";
  }
  return "none";
}

std::string errnoText(int code) {
  return "errno " + std::to_string(code);
}

// An engine whose answer the test picks.
class ScriptedEngine final : public QEVCompressionEngine {
 public:
  ScriptedEngine(QEVCompressionType engineType, std::function<Bytes(const Bytes&)> compressed)
      : type(engineType), answer(std::move(compressed)) {}
  QEVCompressionType compressionType() const override { return type; }
  Bytes compress(const Bytes& input) const override { return answer(input); }
  Bytes decompress(const Bytes&) const override { throw QEVCompressionError::unsupported(); }

 private:
  QEVCompressionType type;
  std::function<Bytes(const Bytes&)> answer;
};

// Runs out of space on writes while `full` is set; can lack an
// application-support directory.
class FaultyFileSystem final : public qevr::FileSystemWrapper {
 public:
  FaultyFileSystem() : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()) {}
  std::optional<fs::path> applicationSupportDirectory() override { return supportDirectory; }
  void writeFileAtomically(const fs::path& path, std::span<const std::uint8_t> bytes) override {
    if (full) throw std::system_error(ENOSPC, std::generic_category(), "write " + path.string());
    FileSystemWrapper::writeFileAtomically(path, bytes);
  }
  std::atomic<bool> full{false};
  std::optional<fs::path> supportDirectory;
};

class QEVFileMemoryStoreTest : public ::testing::Test {
 protected:
  std::unique_ptr<QEVFileMemoryStore> makeStore(
      std::shared_ptr<const QEVCompressionEngine> engine) {
    return std::make_unique<QEVFileMemoryStore>(root, faulty, std::move(engine));
  }
  fs::path chunkFile(const QEVRUUID& id) const {
    return root / "events" / (id.uuidString() + ".json");
  }
  std::string read(const fs::path& file) { return textOf(files.readFile(file, 1 << 24)); }
  void write(const fs::path& file, std::string_view text) {
    files.createDirectories(file.parent_path());
    files.writeFileAtomically(file, bytesOf(text));
  }

  qevr::FileSystem& files = qevr::FileSystem::defaultFileSystem();
  FaultyFileSystem faulty;
  TemporaryDirectory temporary;
  fs::path scratch = temporary.path;
  fs::path root = scratch / "QEVR" / "Memory";
  std::unique_ptr<QEVFileMemoryStore> store =
      makeStore(std::make_shared<QEVLZFSECompressionEngine>());
};

// Loads take only "*.json" files straight in their directory; the disk
// usage counts everything under the root.
TEST_F(QEVFileMemoryStoreTest, FreshRootReadsEmptyThenChunksComeBackByFileName) {
  EXPECT_TRUE(store->loadEventChunks().empty());
  EXPECT_TRUE(store->loadSessionGraphs().empty());
  EXPECT_EQ(store->loadUserGraph(), std::nullopt);
  EXPECT_EQ(store->estimatedDiskUsageBytes(), 0u);
  store->clearAll();

  const QEVMemoryEventChunk c = makeChunk(uuid("C0000000-0000-4000-8000-000000000000"), 100);
  const QEVMemoryEventChunk a = makeChunk(uuid("0A000000-0000-4000-8000-000000000000"), 1);
  QEVMemoryEventChunk b = makeChunk(uuid("B0000000-0000-4000-8000-000000000000"), 7);
  b.schemaVersion = 99;  // not looked at
  for (const QEVMemoryEventChunk& chunk : {c, a, b})
    store->saveEventChunk(chunk);

  EXPECT_THAT(files.walk(root), UnorderedElementsAre(root / "events", chunkFile(a.id),
                                                     chunkFile(b.id), chunkFile(c.id)));
  EXPECT_THAT(store->loadEventChunks(), ElementsAre(a, b, c));

  const std::uint64_t before = store->estimatedDiskUsageBytes();
  EXPECT_GT(before, 0u);
  write(root / "events" / "notes.txt", std::string(100, 'x'));
  write(root / "events" / "SHOUTING.JSON", std::string(50, '{'));
  write(root / "sessions" / "broken.Json", std::string(25, '['));
  EXPECT_EQ(store->estimatedDiskUsageBytes(),
            before + 100 + 50 + 25 + files.fileSize(root / "sessions").value());
  EXPECT_THAT(store->loadEventChunks(), ElementsAre(a, b, c));
  EXPECT_TRUE(store->loadSessionGraphs().empty());
}

TEST_F(QEVFileMemoryStoreTest, CompressesOnlyWhenTheBlockIsStrictlyShorter) {
  const auto scripted = [](QEVCompressionType type, int delta) {
    return std::make_shared<ScriptedEngine>(
        type, [delta](const Bytes& in) { return Bytes(in.size() + delta, 0xAB); });
  };
  const struct {
    const char* name;
    std::shared_ptr<const QEVCompressionEngine> engine;
    QEVCompressionType stored;
  } cases[] = {
      {"real engine", std::make_shared<QEVLZFSECompressionEngine>(), QEVCompressionType::lzfse},
      {"one byte shorter", scripted(QEVCompressionType::lzfse, -1), QEVCompressionType::lzfse},
      {"same length", scripted(QEVCompressionType::lzfse, 0), QEVCompressionType::none},
      {"engine of type none", scripted(QEVCompressionType::none, -100), QEVCompressionType::none},
      {"compression fails",
       std::make_shared<ScriptedEngine>(
           QEVCompressionType::lzfse,
           [](const Bytes&) -> Bytes { throw QEVCompressionError::compressionFailed(); }),
       QEVCompressionType::none},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 100);
    makeStore(c.engine)->saveEventChunk(chunk);
    const std::string raw = chunk.toJSON();
    const std::string file = read(chunkFile(chunk.id));
    const auto envelope = QEVStoredEventChunk::fromJSON(file);
    EXPECT_EQ(envelope.compressionType, c.stored);
    EXPECT_EQ(envelope.uncompressedByteCount, static_cast<std::int64_t>(raw.size()));
    EXPECT_EQ(envelope.payload, c.stored == QEVCompressionType::none
                                    ? bytesOf(raw)
                                    : c.engine->compress(bytesOf(raw)));
    if (c.stored == QEVCompressionType::none || c.name == std::string("real engine")) {
      EXPECT_THAT(store->loadEventChunks(), ElementsAre(chunk));
    }
    store->clearAll();
  }
}

TEST_F(QEVFileMemoryStoreTest, GraphsReplaceTheirFileAndClearAllRemovesTheRoot) {
  const auto graph = [](const char* id, std::int64_t events) {
    return QEVSessionGraph{.sessionId = uuid(id), .eventCount = events, .screenSequence = {"A/B"}};
  };
  EXPECT_THAT([&] { store->saveSessionGraph(QEVSessionGraph{.eventCount = 1}); },
              throwsWithMessage<QEVFileMemoryStoreError>("sessionGraphMissingIdentifier"));
  EXPECT_FALSE(files.exists(root));

  store->saveSessionGraph(graph("22222222-2222-4222-8222-222222222222", 9));
  store->saveSessionGraph(graph("11111111-1111-4111-8111-111111111111", 1));
  store->saveSessionGraph(graph("11111111-1111-4111-8111-111111111111", 2));
  EXPECT_THAT(store->loadSessionGraphs(),
              ElementsAre(graph("11111111-1111-4111-8111-111111111111", 2),
                          graph("22222222-2222-4222-8222-222222222222", 9)));
  QEVUserGraph user{.userId = QEVRUUID::random(), .totalSessions = 2};
  store->saveUserGraph(user);
  user.totalSessions = 3;
  store->saveUserGraph(user);
  EXPECT_EQ(store->loadUserGraph(), user);
  EXPECT_EQ(files.walk(root).size(), 5u);  // two directories, three files

  store->clearAll();
  EXPECT_FALSE(files.exists(root));
  store->saveUserGraph(user);
  EXPECT_EQ(store->loadUserGraph(), user);
}

TEST_F(QEVFileMemoryStoreTest, FailedSaveKeepsTheOldFileWhole) {
  const QEVRUUID id = QEVRUUID::random();
  const QEVMemoryEventChunk old = makeChunk(id, 20);
  store->saveEventChunk(old);
  const std::string oldFile = read(chunkFile(id));
  faulty.full = true;
  EXPECT_EQ(failureOf([&] { store->saveEventChunk(makeChunk(id, 40)); }), errnoText(ENOSPC));
  faulty.full = false;
  EXPECT_EQ(read(chunkFile(id)), oldFile);
  EXPECT_THAT(store->loadEventChunks(), ElementsAre(old));
}

// A damaged file fails the whole load with the decoder's own error, stays
// exactly as it was, and only clearAll gets past it.
TEST_F(QEVFileMemoryStoreTest, DamagedChunkFileFailsTheLoadUntilCleared) {
  const QEVMemoryEventChunk good = makeChunk(QEVRUUID::random(), 100);
  store->saveEventChunk(good);
  const std::string goodFile = read(chunkFile(good.id));
  QEVStoredEventChunk flipped = QEVStoredEventChunk::fromJSON(goodFile);
  flipped.payload[8] ^= 0x01;
  std::string badBase64 = goodFile;
  badBase64[badBase64.find("\"payload\":\"") + 20] = '*';
  const struct {
    const char* name;
    std::string file;
    std::string failure;
  } cases[] = {
      {"truncated envelope", goodFile.substr(0, goodFile.size() / 2), "decoding dataCorrupted"},
      {"empty file", "", "decoding dataCorrupted"},
      {"bad Base64", badBase64, "decoding dataCorrupted.payload"},
      {"bit flipped in the block's magic", flipped.toJSON(), "compression decompressionFailed"},
      {"unknown compression type",
       R"({"compressionType":"LZFSE","uncompressedByteCount":1,"payload":""})",
       "decoding dataCorrupted.compressionType"},
      {"larger than any chunk file", "huge", errnoText(EFBIG)},
  };
  const fs::path damaged = root / "events" / "E0000000-0000-4000-8000-000000000000.json";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    store->saveEventChunk(good);
    write(damaged, c.file);
    if (c.file == "huge") fs::resize_file(damaged, kQEVMemoryMaxFileBytes + 1);  // sparse
    EXPECT_EQ(failureOf([&] { store->loadEventChunks(); }), c.failure);
    if (c.file != "huge") {
      EXPECT_EQ(read(damaged), c.file);
    }
    EXPECT_EQ(read(chunkFile(good.id)), goodFile);
    store->clearAll();
    EXPECT_TRUE(store->loadEventChunks().empty());
  }
}

// Something other than a file under a loader's name fails that load as a
// damaged file does, and so does a pruning run over it; nothing waits for a
// writer that never comes or reads a device that never ends. (Which kinds
// of file the read refuses is the file system's own test.)
TEST_F(QEVFileMemoryStoreTest, FifosAndDevicesFailLikeDamagedFilesWithoutBlocking) {
  const auto fifo = [](const fs::path& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0600), 0); };
  const auto device = [](const fs::path& p) { fs::create_symlink("/dev/zero", p); };
  const std::string name = "A0000000-0000-4000-8000-000000000000.json";
  const struct {
    const char* what;
    std::function<void(const fs::path&)> make;
    fs::path file;
  } cases[] = {
      {"FIFO chunk", fifo, fs::path("events") / name},
      {"device chunk", device, fs::path("events") / name},
      {"FIFO session", fifo, fs::path("sessions") / name},
      {"FIFO user graph", fifo, fs::path("user") / "graph.json"},
  };
  const QEVMemoryPruner pruner(root, files);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    store->saveEventChunk(makeChunk(QEVRUUID::random(), 3));
    files.createDirectories((root / c.file).parent_path());
    c.make(root / c.file);
    const std::string directory = c.file.parent_path().string();
    const std::string expected = errnoText(EINVAL);
    EXPECT_EQ(failureOf([&] { store->loadEventChunks(); }),
              directory == "events" ? expected : "none");
    EXPECT_EQ(failureOf([&] { store->loadSessionGraphs(); }),
              directory == "sessions" ? expected : "none");
    EXPECT_EQ(failureOf([&] { store->loadUserGraph(); }), directory == "user" ? expected : "none");
    EXPECT_EQ(failureOf([&] { pruner.prune(QEVMemoryOptions(0, 0, 0, true)); }),
              directory == "user" ? "none" : expected);
    EXPECT_GT(store->estimatedDiskUsageBytes(), 0u);
    store->clearAll();
  }
}

TEST_F(QEVFileMemoryStoreTest, DefaultRootAndCancellationTouchNoFile) {
  EXPECT_THAT([&] { (void)QEVFileMemoryStore(std::nullopt, faulty, nullptr); },
              throwsWithMessage<QEVFileMemoryStoreError>("applicationSupportUnavailable"));
  faulty.supportDirectory = scratch / "Support";
  EXPECT_EQ(QEVFileMemoryStore(std::nullopt, faulty, nullptr).rootDirectory(),
            scratch / "Support" / "QEVR" / "Memory");

  std::stop_source stop;
  stop.request_stop();
  const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 2);
  EXPECT_EQ(failureOf([&] { store->saveEventChunk(chunk, stop.get_token()); }), "cancelled");
  EXPECT_EQ(failureOf([&] { store->clearAll(stop.get_token()); }), "cancelled");
  EXPECT_THAT(files.walk(scratch), ElementsAre());
}

}  // namespace
