#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Tasks.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <functional>
#include <stdlib.h>
#include <string>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }
std::string textOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }
QEVRUUID uuid(std::string_view text) { return QEVRUUID::parse(text).value(); }
QEVRDate at(std::string_view iso) { return qevr::parseISO8601(iso).value(); }

const QEVRUUID kSession = uuid("5D0D7B8E-3C1A-4F57-9E2B-6A4C1E0F9B21");

// `count` events of the kinds a session produces, with whole-second dates
// so that they survive the trip through the file unchanged.
QEVMemoryEventChunk makeChunk(const QEVRUUID& id, int count, QEVRDate createdAt) {
  static const char* const kScreens[] = {"Home", "Search/Results", "Cart", "Écran d’accueil"};
  QEVMemoryEventChunk chunk;
  chunk.id = id;
  chunk.sessionId = kSession;
  chunk.createdAt = createdAt;
  for (int i = 0; i < count; ++i) {
    QEVMemoryEvent event;
    event.id = QEVRUUID::random();
    event.type = i % 3 == 0 ? QEVMemoryEventType::screenView : QEVMemoryEventType::buttonTap;
    event.timestamp = createdAt.addingSeconds(i);
    event.sessionId = kSession;
    event.screenName = kScreens[i % 4];
    if (event.type == QEVMemoryEventType::buttonTap) event.componentId = "cart.checkoutButton";
    event.metadata = {{"title", "Continue"}, {"index", i}, {"ratio", 0.25 * i}, {"new", i % 2 == 0}};
    event.sequenceNumber = static_cast<std::uint64_t>(i) + 1;
    chunk.events.push_back(std::move(event));
  }
  chunk.eventCount = count;
  chunk.closedAt = createdAt.addingSeconds(count);
  return chunk;
}

QEVSessionGraph makeSessionGraph(const QEVRUUID& id, std::int64_t eventCount) {
  QEVSessionGraph graph;
  graph.sessionId = id;
  graph.startedAt = at("2026-03-01T09:00:00Z");
  graph.endedAt = at("2026-03-01T09:10:00Z");
  graph.duration = 600;
  graph.eventCount = eventCount;
  graph.screenSequence = {"Home", "Cart"};
  graph.navigationEdges = {{std::nullopt, "Home", 1}, {"Home", "Cart", 1}};
  graph.componentInteractions = {{"cart.checkoutButton", "Cart", 2, 0}};
  graph.customEventCounts = {{"purchase", 1}};
  return graph;
}

// What a failed call threw, as one comparable line.
std::string failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const qevr::json::DecodingError& e) {
    std::string path;
    for (const std::string& entry : e.codingPath()) path += "." + entry;
    const char* kinds[] = {"typeMismatch", "valueNotFound", "keyNotFound", "dataCorrupted"};
    return std::string("decoding ") + kinds[static_cast<int>(e.kind())] + path;
  } catch (const qevr::json::EncodingError&) {
    return "encoding";
  } catch (const QEVCompressionError& e) {
    return std::string("compression ") + e.what();
  } catch (const QEVFileMemoryStoreError& e) {
    return std::string("store ") + e.what();
  } catch (const std::system_error& e) {
    return "errno " + std::to_string(e.code().value());
  } catch (const QEVRCancellationError&) {
    return "cancelled";
  }
  return "no failure";
}

std::string errnoText(int code) { return "errno " + std::to_string(code); }

// Rewrites the big-endian length prefix of a compressed block.
void setDeclaredLength(Bytes& block, std::uint64_t n) {
  for (int i = 0; i < 8; ++i) block[i] = static_cast<std::uint8_t>(n >> (56 - 8 * i));
}

std::uint64_t declaredLength(const Bytes& block) {
  std::uint64_t n = 0;
  for (int i = 0; i < 8; ++i) n = n << 8 | block[i];
  return n;
}

// An engine whose answer the test decides, to pin down when the store uses
// a compressed result and when it falls back to the raw JSON.
class ScriptedEngine final : public QEVCompressionEngine {
 public:
  ScriptedEngine(QEVCompressionType engineType, std::function<Bytes(const Bytes&)> compressed)
      : type(engineType), answer(std::move(compressed)) {}
  QEVCompressionType compressionType() const override { return type; }
  Bytes compress(const Bytes& input) const override {
    seen = input;
    return answer(input);
  }
  Bytes decompress(const Bytes&) const override {
    throw QEVCompressionError::decompressionFailed();
  }
  mutable Bytes seen;  // read only after the store call has returned

 private:
  QEVCompressionType type;
  std::function<Bytes(const Bytes&)> answer;
};

// Forwards to the real file system, but runs out of space on writes while
// `full` is set, and can pretend there is no application-support directory.
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
  void SetUp() override {
    char pattern[] = "/tmp/qevr-store-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    scratch = pattern;
    root = scratch / "QEVR" / "Memory";
    store = makeStore(files);
  }
  void TearDown() override { fs::remove_all(scratch); }

  std::unique_ptr<QEVFileMemoryStore> makeStore(
      qevr::FileSystem& fileSystem,
      std::shared_ptr<const QEVCompressionEngine> engine =
          std::make_shared<QEVLZFSECompressionEngine>()) {
    return std::make_unique<QEVFileMemoryStore>(root, fileSystem, std::move(engine));
  }

  fs::path chunkFile(const QEVRUUID& id) const { return root / "events" / (id.uuidString() + ".json"); }

  QEVStoredEventChunk envelopeAt(const fs::path& file) {
    return QEVStoredEventChunk::fromJSON(textOf(files.readFile(file, 1 << 24)));
  }

  void writeRaw(const fs::path& file, std::string_view text) {
    files.createDirectories(file.parent_path());
    files.writeFileAtomically(file, bytesOf(text));
  }

  qevr::FileSystem& files = qevr::FileSystem::defaultFileSystem();
  fs::path scratch;
  fs::path root;
  std::unique_ptr<QEVFileMemoryStore> store;
};

TEST_F(QEVFileMemoryStoreTest, FreshRootReadsEmptyAndTheFirstChunkMakesOnlyEvents) {
  EXPECT_TRUE(store->loadEventChunks().empty());
  EXPECT_TRUE(store->loadSessionGraphs().empty());
  EXPECT_EQ(store->loadUserGraph(), std::nullopt);
  EXPECT_EQ(store->estimatedDiskUsageBytes(), 0u);
  store->clearAll();
  EXPECT_FALSE(files.exists(root));

  const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 3, at("2026-03-01T09:00:00Z"));
  store->saveEventChunk(chunk);
  EXPECT_THAT(files.walk(root), ::testing::UnorderedElementsAre(root / "events", chunkFile(chunk.id)));
  EXPECT_THAT(store->loadEventChunks(), ::testing::ElementsAre(chunk));
}

TEST_F(QEVFileMemoryStoreTest, ChunksComeBackSortedByFileNameWithWholeSecondDates) {
  const QEVMemoryEventChunk c = makeChunk(uuid("C0000000-0000-4000-8000-000000000000"), 100,
                                          at("2026-03-01T09:00:00Z"));
  const QEVMemoryEventChunk a = makeChunk(uuid("0A000000-0000-4000-8000-000000000000"), 1,
                                          at("2026-02-01T09:00:00Z"));
  QEVMemoryEventChunk b = makeChunk(uuid("B0000000-0000-4000-8000-000000000000"), 7,
                                    at("2026-01-01T09:00:00Z"));
  b.closedAt = at("2026-01-01T10:00:00Z").addingSeconds(0.75);
  for (const QEVMemoryEventChunk& chunk : {c, a, b}) store->saveEventChunk(chunk);

  QEVMemoryEventChunk bOnDisk = b;
  bOnDisk.closedAt = at("2026-01-01T10:00:00Z");
  EXPECT_THAT(store->loadEventChunks(), ::testing::ElementsAre(a, bOnDisk, c));
}

TEST_F(QEVFileMemoryStoreTest, RealEngineCompressesAFullChunk) {
  const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 100, at("2026-03-01T09:00:00Z"));
  store->saveEventChunk(chunk);
  const std::string raw = chunk.toJSON();
  const QEVStoredEventChunk envelope = envelopeAt(chunkFile(chunk.id));
  EXPECT_EQ(envelope.compressionType, QEVCompressionType::lzfse);
  EXPECT_EQ(envelope.uncompressedByteCount, static_cast<std::int64_t>(raw.size()));
  EXPECT_LT(envelope.payload.size(), raw.size());
  EXPECT_EQ(textOf(QEVLZFSECompressionEngine().decompress(envelope.payload)), raw);
}

TEST_F(QEVFileMemoryStoreTest, UsesACompressedResultOnlyWhenItIsStrictlyShorter) {
  using Answer = std::function<Bytes(const Bytes&)>;
  const Answer shorter = [](const Bytes& in) { return Bytes(in.size() - 1, 0xAB); };
  const Answer sameLength = [](const Bytes& in) { return Bytes(in.size(), 0xAB); };
  const Answer longer = [](const Bytes& in) { return Bytes(in.size() + 5, 0xAB); };
  const Answer failing = [](const Bytes&) -> Bytes {
    throw QEVCompressionError::compressionFailed();
  };
  const Answer tiny = [](const Bytes&) { return Bytes{1, 2, 3}; };
  const struct {
    const char* name;
    QEVCompressionType engineType;
    Answer answer;
    QEVCompressionType stored;
  } cases[] = {
      {"shorter", QEVCompressionType::lzfse, shorter, QEVCompressionType::lzfse},
      {"same length", QEVCompressionType::lzfse, sameLength, QEVCompressionType::none},
      {"longer", QEVCompressionType::lzfse, longer, QEVCompressionType::none},
      {"compression fails", QEVCompressionType::lzfse, failing, QEVCompressionType::none},
      {"engine of type none", QEVCompressionType::none, tiny, QEVCompressionType::none},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto engine = std::make_shared<ScriptedEngine>(c.engineType, c.answer);
    const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 5, at("2026-03-01T09:00:00Z"));
    makeStore(files, engine)->saveEventChunk(chunk);

    const std::string raw = chunk.toJSON();
    const QEVStoredEventChunk envelope = envelopeAt(chunkFile(chunk.id));
    EXPECT_EQ(envelope.compressionType, c.stored);
    EXPECT_EQ(envelope.uncompressedByteCount, static_cast<std::int64_t>(raw.size()));
    if (c.stored == QEVCompressionType::none) {
      EXPECT_EQ(textOf(envelope.payload), raw);
      // A plain chunk reads back whatever engine the reader has.
      EXPECT_EQ(decodeStoredChunkFile(envelope.toJSON(), *engine), chunk);
    } else {
      EXPECT_EQ(textOf(engine->seen), raw);
      EXPECT_EQ(envelope.payload, shorter(engine->seen));
    }
  }
}

TEST_F(QEVFileMemoryStoreTest, ForeignFilesAreIgnoredByLoadsButCounted) {
  const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 10, at("2026-03-01T09:00:00Z"));
  store->saveEventChunk(chunk);
  store->saveSessionGraph(makeSessionGraph(QEVRUUID::random(), 4));
  const std::uint64_t before = store->estimatedDiskUsageBytes();
  EXPECT_GT(before, 0u);

  writeRaw(root / "events" / "notes.txt", std::string(100, 'x'));
  writeRaw(root / "events" / "SHOUTING.JSON", std::string(50, '{'));
  writeRaw(root / "sessions" / "broken.Json", std::string(25, '['));
  writeRaw(root / "events" / ".A.json.1.2.3.tmp", std::string(7, '"'));
  EXPECT_EQ(store->estimatedDiskUsageBytes(), before + 100 + 50 + 25 + 7);
  EXPECT_THAT(store->loadEventChunks(), ::testing::ElementsAre(chunk));
  EXPECT_EQ(store->loadSessionGraphs().size(), 1u);
}

TEST_F(QEVFileMemoryStoreTest, GraphsReplaceTheirFileAndNeedASessionIdentifier) {
  const QEVRUUID first = uuid("11111111-1111-4111-8111-111111111111");
  const QEVRUUID second = uuid("22222222-2222-4222-8222-222222222222");
  QEVSessionGraph unnamed = makeSessionGraph(first, 1);
  unnamed.sessionId.reset();
  EXPECT_EQ(failureOf([&] { store->saveSessionGraph(unnamed); }),
            "store sessionGraphMissingIdentifier");
  EXPECT_FALSE(files.exists(root));

  store->saveSessionGraph(makeSessionGraph(second, 9));
  store->saveSessionGraph(makeSessionGraph(first, 1));
  store->saveSessionGraph(makeSessionGraph(first, 2));
  EXPECT_THAT(store->loadSessionGraphs(),
              ::testing::ElementsAre(makeSessionGraph(first, 2), makeSessionGraph(second, 9)));
  EXPECT_EQ(files.listDirectory(root / "sessions").size(), 2u);

  QEVUserGraph user;
  user.userId = QEVRUUID::random();
  user.createdAt = at("2026-01-01T00:00:00Z");
  user.updatedAt = at("2026-03-01T09:10:00Z");
  user.totalSessions = 2;
  user.frequentlyVisitedScreens = {{"Home", 2}};
  store->saveUserGraph(user);
  user.totalSessions = 3;
  store->saveUserGraph(user);
  EXPECT_EQ(store->loadUserGraph(), user);
  EXPECT_THAT(files.listDirectory(root / "user"), ::testing::ElementsAre(root / "user" / "graph.json"));
}

TEST_F(QEVFileMemoryStoreTest, ClearAllRemovesTheRootAndTheNextWriteBringsItBack) {
  store->saveEventChunk(makeChunk(QEVRUUID::random(), 2, at("2026-03-01T09:00:00Z")));
  store->saveSessionGraph(makeSessionGraph(QEVRUUID::random(), 2));
  QEVUserGraph user;
  user.userId = QEVRUUID::random();
  store->saveUserGraph(user);
  writeRaw(root / "stray.bin", "stray");

  store->clearAll();
  EXPECT_FALSE(files.exists(root));
  EXPECT_EQ(store->loadUserGraph(), std::nullopt);
  EXPECT_TRUE(store->loadEventChunks().empty());
  EXPECT_EQ(store->estimatedDiskUsageBytes(), 0u);

  store->saveUserGraph(user);
  EXPECT_EQ(store->loadUserGraph(), user);
}

TEST_F(QEVFileMemoryStoreTest, FailedSaveKeepsTheOldFileWhole) {
  FaultyFileSystem faulty;
  auto faultyStore = makeStore(faulty);
  const QEVRUUID id = QEVRUUID::random();
  const QEVMemoryEventChunk old = makeChunk(id, 20, at("2026-03-01T09:00:00Z"));
  faultyStore->saveEventChunk(old);
  const Bytes oldBytes = files.readFile(chunkFile(id), 1 << 24);

  QEVMemoryEventChunk unencodable = makeChunk(id, 30, at("2026-03-02T09:00:00Z"));
  unencodable.events[4].metadata.insert_or_assign("ratio", std::nan(""));
  const struct {
    const char* name;
    bool diskFull;
    QEVMemoryEventChunk replacement;
    std::string failure;
  } cases[] = {
      {"out of space", true, makeChunk(id, 40, at("2026-03-02T09:00:00Z")), errnoText(ENOSPC)},
      {"not encodable", false, unencodable, "encoding"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    faulty.full = c.diskFull;
    EXPECT_EQ(failureOf([&] { faultyStore->saveEventChunk(c.replacement); }), c.failure);
    faulty.full = false;
    EXPECT_EQ(files.readFile(chunkFile(id), 1 << 24), oldBytes);
    EXPECT_THAT(faultyStore->loadEventChunks(), ::testing::ElementsAre(old));
    EXPECT_THAT(files.listDirectory(root / "events"), ::testing::ElementsAre(chunkFile(id)));
  }

  QEVUserGraph user;
  user.userId = QEVRUUID::random();
  faultyStore->saveUserGraph(user);
  faulty.full = true;
  QEVUserGraph newer = user;
  newer.totalEvents = 100;
  EXPECT_EQ(failureOf([&] { faultyStore->saveUserGraph(newer); }), errnoText(ENOSPC));
  EXPECT_EQ(faultyStore->loadUserGraph(), user);
}

// Every damaged file fails the whole load with the decoder's own error,
// leaves the file exactly as it was, and is only got rid of by clearAll.
TEST_F(QEVFileMemoryStoreTest, DamagedChunkFileFailsTheLoadUntilCleared) {
  const QEVRUUID id = uuid("D0000000-0000-4000-8000-000000000000");
  const QEVMemoryEventChunk good = makeChunk(id, 100, at("2026-03-01T09:00:00Z"));
  store->saveEventChunk(good);
  const std::string goodFile = textOf(files.readFile(chunkFile(id), 1 << 24));
  const QEVStoredEventChunk goodEnvelope = QEVStoredEventChunk::fromJSON(goodFile);
  ASSERT_EQ(goodEnvelope.compressionType, QEVCompressionType::lzfse);

  const auto withPayload = [&](const std::function<void(Bytes&)>& damage) {
    QEVStoredEventChunk envelope = goodEnvelope;
    damage(envelope.payload);
    return envelope.toJSON();
  };
  const auto plainEnvelope = [](const std::string& json) {
    return QEVStoredEventChunk{QEVCompressionType::none, 0, bytesOf(json)}.toJSON();
  };
  const std::string base64Start = "\"payload\":\"";
  std::string badBase64 = goodFile;
  badBase64[badBase64.find(base64Start) + base64Start.size() + 10] = '*';

  const struct {
    const char* name;
    std::string file;
    std::string failure;
  } cases[] = {
      {"truncated envelope", goodFile.substr(0, goodFile.size() / 2), "decoding dataCorrupted"},
      {"empty file", "", "decoding dataCorrupted"},
      {"bad Base64", badBase64, "decoding dataCorrupted.payload"},
      {"bit flipped in the block's magic",
       withPayload([](Bytes& block) { block[8] ^= 0x01; }), "compression decompressionFailed"},
      {"length prefix one too large",
       withPayload([](Bytes& block) { setDeclaredLength(block, declaredLength(block) + 1); }),
       "compression decompressionFailed"},
      {"length prefix past 64 MiB",
       withPayload([](Bytes& block) { setDeclaredLength(block, (64u << 20) + 1); }),
       "compression decompressionFailed"},
      {"unknown compression type",
       R"({"compressionType":"LZFSE","uncompressedByteCount":1,"payload":""})",
       "decoding dataCorrupted.compressionType"},
      {"envelope missing a count", R"({"compressionType":"none","payload":"e30="})",
       "decoding keyNotFound.uncompressedByteCount"},
      {"chunk missing its events",
       plainEnvelope(R"({"id":"D0000000-0000-4000-8000-000000000000",)"
                     R"("createdAt":"2026-03-01T09:00:00Z","eventCount":0,"schemaVersion":1})"),
       "decoding keyNotFound.events"},
  };
  const fs::path damaged = root / "events" / "E0000000-0000-4000-8000-000000000000.json";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    store->saveEventChunk(good);
    writeRaw(damaged, c.file);
    EXPECT_EQ(failureOf([&] { store->loadEventChunks(); }), c.failure);
    EXPECT_EQ(textOf(files.readFile(damaged, 1 << 24)), c.file);
    EXPECT_EQ(textOf(files.readFile(chunkFile(id), 1 << 24)), goodFile);
    store->clearAll();
    EXPECT_TRUE(store->loadEventChunks().empty());
  }
}

TEST_F(QEVFileMemoryStoreTest, UnreadableFilesFailWithoutBeingRead) {
  const struct {
    const char* name;
    std::function<void(const fs::path&)> make;
    std::string failure;
  } cases[] = {
      // Sparse: no disk used, and the size check refuses it before a read.
      {"larger than any chunk file",
       [](const fs::path& p) {
         std::filesystem::resize_file(p, kQEVMemoryMaxFileBytes + 1);
       },
       errnoText(EFBIG)},
      {"a directory with a json name",
       [](const fs::path& p) {
         fs::remove(p);
         fs::create_directory(p);
       },
       errnoText(EISDIR)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const char* dir : {"events", "sessions"}) {
      const fs::path file = root / dir / "F0000000-0000-4000-8000-000000000000.json";
      writeRaw(file, "{}");
      c.make(file);
    }
    writeRaw(root / "user" / "graph.json", "{}");
    c.make(root / "user" / "graph.json");
    EXPECT_EQ(failureOf([&] { store->loadEventChunks(); }), c.failure);
    EXPECT_EQ(failureOf([&] { store->loadSessionGraphs(); }), c.failure);
    EXPECT_EQ(failureOf([&] { store->loadUserGraph(); }), c.failure);
    store->clearAll();
  }
}

TEST_F(QEVFileMemoryStoreTest, HandWrittenFilesThatStillLoad) {
  const std::string chunkJSON =
      R"({"id":"A1000000-0000-4000-8000-000000000000","createdAt":"2026-03-01T09:00:00Z",)"
      R"("events":[],"eventCount":0,"schemaVersion":99,"futureField":[1,2]})";
  const std::string base64 = qevr::base64Encode(bytesOf(chunkJSON));
  const struct {
    const char* name;
    std::string envelope;
  } cases[] = {
      {"schema version 99, unknown keys",
       R"({"compressionType":"none","uncompressedByteCount":3,"payload":")" + base64 + R"("})"},
      {"keys reordered, count ignored",
       R"({"payload":")" + base64 + R"(","extra":null,"uncompressedByteCount":-1,"compressionType":"none"})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    writeRaw(root / "events" / "A1000000-0000-4000-8000-000000000000.json", c.envelope);
    const std::vector<QEVMemoryEventChunk> loaded = store->loadEventChunks();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded[0].schemaVersion, 99);
    EXPECT_EQ(loaded[0].createdAt, at("2026-03-01T09:00:00Z"));
    EXPECT_TRUE(loaded[0].events.empty());
  }
}

TEST_F(QEVFileMemoryStoreTest, ConstructionResolvesTheDefaultRootWithoutTouchingIt) {
  FaultyFileSystem faulty;
  EXPECT_EQ(failureOf([&] { (void)QEVFileMemoryStore(std::nullopt, faulty, nullptr); }),
            "store applicationSupportUnavailable");

  faulty.supportDirectory = scratch / "Application Support";
  QEVFileMemoryStore defaulted(std::nullopt, faulty, std::make_shared<QEVLZFSECompressionEngine>());
  EXPECT_EQ(defaulted.rootDirectory(), scratch / "Application Support" / "QEVR" / "Memory");
  EXPECT_EQ(defaultMemoryRootDirectory(faulty), defaulted.rootDirectory());
  EXPECT_FALSE(files.exists(scratch / "Application Support"));
}

TEST_F(QEVFileMemoryStoreTest, StopRequestedBeforehandDoesNoFileWork) {
  std::stop_source source;
  source.request_stop();
  const QEVMemoryEventChunk chunk = makeChunk(QEVRUUID::random(), 2, at("2026-03-01T09:00:00Z"));
  EXPECT_EQ(failureOf([&] { store->saveEventChunk(chunk, source.get_token()); }), "cancelled");
  EXPECT_EQ(failureOf([&] { store->saveSessionGraph(makeSessionGraph(kSession, 1), source.get_token()); }),
            "cancelled");
  EXPECT_FALSE(files.exists(root));
  store->saveEventChunk(chunk);
  EXPECT_EQ(failureOf([&] { store->clearAll(source.get_token()); }), "cancelled");
  EXPECT_TRUE(files.exists(chunkFile(chunk.id)));
}

// Readers racing writers must only ever see whole files: a torn chunk file
// would fail the load.
TEST_F(QEVFileMemoryStoreTest, ConcurrentSavesAndLoadsSeeWholeFiles) {
  const QEVRUUID shared = QEVRUUID::random();
  std::vector<std::thread> writers;
  for (int w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 0; i < 15; ++i) {
        store->saveEventChunk(makeChunk(shared, 1 + 30 * w + i, at("2026-03-01T09:00:00Z")));
        store->saveEventChunk(makeChunk(QEVRUUID::random(), 5, at("2026-03-01T09:00:00Z")));
      }
    });
  }
  std::size_t loads = 0;
  std::string failure;
  for (; loads < 40 && failure.empty(); ++loads) {
    failure = failureOf([&] { store->loadEventChunks(); });
    if (failure == "no failure") failure.clear();
  }
  for (std::thread& t : writers) t.join();
  EXPECT_EQ(failure, "");
  EXPECT_EQ(store->loadEventChunks().size(), 31u);
}

}  // namespace
