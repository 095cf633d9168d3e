using System;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.Linq;
using System.Threading;
using System.Threading.Tasks;
using NUnit.Framework;

namespace QEVR.Tests
{
    [TestFixture]
    public class BindingTests : StoreFixture
    {
        [Test]
        public void EveryCallEndToEnd()
        {
            long freedBefore = Utf8.FreedCount;
            Qevr.ClearMemory();
            Qevr.SetContinuity(true);
            Assert.That(Qevr.GetContinuity(), Is.True);
            Qevr.Start(App());
            Assert.That(Qevr.GetLifecycleState(), Is.EqualTo(LifecycleState.Running));
            Assert.That(Qevr.ScreenView("Home"), Is.True);
            for (int i = 0; i < 6; i++)
                Assert.That(Qevr.ButtonTap("play", "Play", new Dictionary<string, object> { { "slot", 2 }, { "ranked", true } }), Is.True);
            Assert.That(Qevr.Navigation("Home", "Level 1"), Is.True);
            Assert.That(Qevr.Navigation(null, "Level 1"), Is.True);
            Assert.That(Qevr.Gesture("swipe"), Is.True);
            Assert.That(Qevr.Track("level_completed", new Dictionary<string, object>
            {
                { "score", 1200L }, { "accuracy", 0.875 }, { "ratio", 0.5f }, { "mode", "ranked" }, { "at", DateTime.UtcNow },
            }), Is.True);
            Assert.That(Qevr.Track("   "), Is.False, "a blank name is a refusal, not an error");
            Qevr.ConfigurePrivacy(new PrivacyOptions { AllowCustomEvents = false });
            Assert.That(Qevr.GetPrivacyOptions().AllowCustomEvents, Is.False);
            Assert.That(Qevr.GetPrivacyOptions().AllowScreenTracking, Is.True, "keys left out keep their defaults");
            Assert.That(Qevr.Track("jump"), Is.False);
            Qevr.ConfigurePrivacy(null);
            Qevr.Pause();
            Assert.That(Qevr.GetLifecycleState(), Is.EqualTo(LifecycleState.Paused));
            Assert.That(Qevr.ScreenView("Pause Menu"), Is.False, "paused: refused");
            Qevr.Resume();
            Assert.That(Qevr.ScreenDisappear("Level 1"), Is.True);
            Qevr.Shutdown();
            Assert.That(Qevr.GetLifecycleState(), Is.EqualTo(LifecycleState.Shutdown));
            Assert.That(Qevr.WaitForBackgroundIdle(TimeSpan.FromSeconds(30)), Is.True);

            MemoryStats stats = Qevr.GetMemoryStats();
            Assert.That(stats.HasUserGraph, Is.True);
            Assert.That(stats.EventChunkCount, Is.GreaterThanOrEqualTo(1));
            Assert.That(stats.SessionGraphCount, Is.EqualTo(1));
            AssertRecent(stats.OldestEventDate.Value, "oldestEventDate");
            MemorySnapshot snapshot = Qevr.GetMemorySnapshot();
            Assert.That(snapshot.TotalSessions, Is.EqualTo(1));
            Assert.That(snapshot.TotalEvents, Is.EqualTo(12), "every dispatched event, nothing refused");
            Assert.That(snapshot.FrequentComponents["play"], Is.EqualTo(6));
            Assert.That(snapshot.FrequentCustomEvents.ContainsKey("level_completed"), Is.True);
            Assert.That(snapshot.RecentNavigationPatterns["Home->Level 1"], Is.EqualTo(1));
            AssertRecent(snapshot.TimeWindowStart.Value, "timeWindowStart");

            // A second launch carries on from the first and recommends from it.
            Qevr.Start(App());
            BehaviorSummary summary = Qevr.SummarizeBehavior();
            CollectionAssert.Contains(summary.DominantActions, "play");
            AssertRecent(summary.GeneratedAt, "generatedAt");
            IntentAnalysis intent = Qevr.AnalyzeIntent(Domain.Game);
            Assert.That(intent.Confidence, Is.InRange(0.0, 1.0));
            CollectionAssert.Contains(new[] { "none", "low", "medium", "high" }, Qevr.DetectFrustration().Level);
            Assert.That(Qevr.AnalyzeSkill(Domain.Custom("travel")).SkillLevel, Is.Not.Empty);
            IReadOnlyList<Recommendation> recommendations = Qevr.Generate(Domain.Game);
            CollectionAssert.Contains(recommendations.Select(r => r.Action.ComponentId).ToList(), "play");
            Assert.That(recommendations.Select(r => r.Confidence), Is.Ordered.Descending);
            AssertRecent(recommendations[0].CreatedAt, "createdAt");
            Assert.That(Qevr.Generate(Domain.Game, new RecommendationPolicy { MaxRecommendations = 0 }), Is.Empty);
            Assert.That(Qevr.Generate(Domain.Game, new RecommendationPolicy { ProtectedComponentIds = new[] { "play" } })
                .Where(r => r.Action.ComponentId == "play"), Is.Empty);
            Qevr.Shutdown();
            Assert.That(Qevr.Generate(Domain.Game), Is.Empty, "not running: no recommendations");
            // Privacy twice, stats, snapshot, four analyses, four generates:
            // each string handed out is released once.
            Assert.That(Utf8.FreedCount - freedBefore, Is.EqualTo(12));
        }

        [Test]
        public void AsyncFormsGiveWhatTheBlockingCallsGive()
        {
            Session(() =>
            {
                Qevr.ScreenView("Home");
                for (int i = 0; i < 5; i++) Qevr.ButtonTap("play");
            });
            Qevr.Start(App());
            Assert.That(Qevr.GetMemorySnapshotAsync().Result.FrequentComponents["play"], Is.EqualTo(5));
            Assert.That(Qevr.GetMemoryStatsAsync().Result.SessionGraphCount, Is.EqualTo(1));
            Assert.That(Qevr.SummarizeBehaviorAsync().Result.Summary, Is.EqualTo(Qevr.SummarizeBehavior().Summary));
            Assert.That(Qevr.AnalyzeIntentAsync(Domain.Game).Result.PrimaryIntent, Is.EqualTo(Qevr.AnalyzeIntent(Domain.Game).PrimaryIntent));
            Assert.That(Qevr.DetectFrustrationAsync().Result.Level, Is.EqualTo(Qevr.DetectFrustration().Level));
            Assert.That(Qevr.AnalyzeSkillAsync(Domain.Game).Result.SkillLevel, Is.EqualTo(Qevr.AnalyzeSkill(Domain.Game).SkillLevel));
            Assert.That(Qevr.GenerateAsync(Domain.Game).Result.Select(r => r.Title),
                Is.EqualTo(Qevr.Generate(Domain.Game).Select(r => r.Title)));
            Qevr.Shutdown();
            Qevr.ClearMemoryAsync().Wait();
            Assert.That(Qevr.GetMemoryStats().HasUserGraph, Is.False);
        }

        [Test]
        public void ContinuityCarriesSessionsAcrossRuns()
        {
            Assert.That(Qevr.GetContinuity(), Is.False);
            Qevr.SetContinuity(true);
            for (int run = 0; run < 3; run++) Session(() => Assert.That(Qevr.ScreenView("Run " + run), Is.True));
            Assert.That(Qevr.GetMemorySnapshot().TotalSessions, Is.EqualTo(3));
        }

        private static readonly Action<CancellationToken>[] BlockingCalls =
        {
            c => Qevr.GetMemoryStats(c), c => Qevr.GetMemorySnapshot(c), c => Qevr.ClearMemory(c),
            c => Qevr.SummarizeBehavior(c), c => Qevr.AnalyzeIntent(Domain.Game, c), c => Qevr.DetectFrustration(c),
            c => Qevr.AnalyzeSkill(Domain.Game, c), c => Qevr.Generate(Domain.Game, null, c),
        };

        [Test]
        public void CancelledTokenStopsEveryBlockingCallAndChangesNothing()
        {
            Session(() => Qevr.ScreenView("Home"));
            Qevr.Start(App());
            long freedBefore = Utf8.FreedCount;
            using (CancellationTokenSource source = new CancellationTokenSource())
            {
                source.Cancel();
                for (int i = 0; i < BlockingCalls.Length; i++)
                {
                    QevrCancelledException error = Assert.Throws<QevrCancelledException>(() => BlockingCalls[i](source.Token), "call " + i);
                    Assert.That(error.Code, Is.EqualTo(QevrStatus.Cancelled));
                    Assert.That(error.Message, Is.Not.Empty);
                }
                AggregateException faulted = Assert.Throws<AggregateException>(() => Qevr.GenerateAsync(Domain.Game, null, source.Token).Wait());
                Assert.That(faulted.InnerException, Is.TypeOf<QevrCancelledException>());
            }
            Assert.That(Utf8.FreedCount, Is.EqualTo(freedBefore), "nothing handed out, nothing to free");
            Qevr.Shutdown();
            Assert.That(Qevr.GetMemorySnapshot().TotalSessions, Is.EqualTo(1), "the cancelled clear erased nothing");
            using (CancellationTokenSource live = new CancellationTokenSource())
                Assert.That(Qevr.GetMemoryStats(live.Token).SessionGraphCount, Is.EqualTo(1), "a token never cancelled");
        }

        public static readonly object[] Refusals =
        {
            new object[] { (TestDelegate)(() => Qevr.Pause()), typeof(QevrStateException), QevrStatus.State, "pause" },
            new object[] { (TestDelegate)(() => Qevr.Resume()), typeof(QevrStateException), QevrStatus.State, "resume" },
            new object[] { (TestDelegate)(() => Qevr.Shutdown()), typeof(QevrStateException), QevrStatus.State, "shut down" },
            new object[] { (TestDelegate)(() => Qevr.Start(new Configuration { AppId = " " })), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "appId" },
            new object[] { (TestDelegate)(() => Qevr.Start(new Configuration { Environment = "prod" })), typeof(QevrInvalidJsonException), QevrStatus.InvalidJson, "environment" },
            new object[] { (TestDelegate)(() => Qevr.Track(null)), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "must not be NULL" },
            new object[] { (TestDelegate)(() => Qevr.ButtonTap(null, "Play")), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "must not be NULL" },
            new object[] { (TestDelegate)(() => Qevr.Gesture("wave")), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "gesture_type" },
            new object[] { (TestDelegate)(() => Qevr.AnalyzeIntent(Domain.Named("sports"))), typeof(QevrInvalidJsonException), QevrStatus.InvalidJson, "domain_json" },
            new object[] { (TestDelegate)(() => Qevr.Generate(null, new RecommendationPolicy { MaxRecommendations = 1 })), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "domain_json" },
            // Refused by the binding before the call.
            new object[] { (TestDelegate)(() => Qevr.Track("jump\ud800")), typeof(QevrInvalidUtf8Exception), QevrStatus.InvalidUtf8, "name holds a lone surrogate" },
            new object[] { (TestDelegate)(() => Qevr.ScreenView("\udc00Home")), typeof(QevrInvalidUtf8Exception), QevrStatus.InvalidUtf8, "screenName" },
            new object[] { (TestDelegate)(() => Qevr.Track("jump", new Dictionary<string, object> { { "k", "\ud83d" } })), typeof(QevrInvalidUtf8Exception), QevrStatus.InvalidUtf8, "metadata" },
            new object[] { (TestDelegate)(() => Qevr.SetDataDirectory("/tmp/\ud800")), typeof(QevrInvalidUtf8Exception), QevrStatus.InvalidUtf8, "path" },
            new object[] { (TestDelegate)(() => Qevr.Track("jump\0ed")), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "NUL" },
            new object[] { (TestDelegate)(() => Qevr.Generate(Domain.Game, new RecommendationPolicy { ProtectedScreenNames = new string[] { null } })), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "protectedScreenNames" },
            new object[] { (TestDelegate)(() => Qevr.Generate(Domain.Game, new RecommendationPolicy { MinimumConfidence = double.NaN })), typeof(QevrInvalidArgumentException), QevrStatus.InvalidArgument, "MinimumConfidence" },
        };

        [TestCaseSource("Refusals")]
        public void RefusalThrowsTheMatchingExceptionAndChangesNothing(TestDelegate call, Type type, QevrStatus code, string text)
        {
            Qevr.ConfigurePrivacy(new PrivacyOptions { AllowGestureTracking = false });
            string before = State();
            QevrException error = (QevrException)Assert.Throws(type, call);
            Assert.That(error.Code, Is.EqualTo(code));
            StringAssert.Contains(text, error.Message);
            Assert.That(State(), Is.EqualTo(before));
        }

        private string State()
        {
            PrivacyOptions privacy = Qevr.GetPrivacyOptions();
            MemoryOptions memory = Qevr.GetMemoryOptions();
            return string.Join(" ", Qevr.GetLifecycleState(), privacy.AllowGestureTracking, privacy.AllowCustomEvents,
                memory.PruningEnabled, memory.MaxDiskUsageMB, System.IO.Directory.GetFileSystemEntries(DataDirectory).Length);
        }

        private static readonly object[] UnsupportedMetadata =
        {
            1.5m, 7UL, (short)3, 'c', new object(), null, new DateTimeOffset(2020, 1, 1, 0, 0, 0, TimeSpan.Zero),
            new DateTime(2020, 1, 1), double.NaN, float.PositiveInfinity, double.NegativeInfinity, new[] { 1 },
        };

        [Test]
        public void UnsupportedMetadataNeverReachesTheLibrary()
        {
            Session(() =>
            {
                foreach (object value in UnsupportedMetadata)
                {
                    Dictionary<string, object> metadata = new Dictionary<string, object> { { "ok", 1 }, { "bad", value } };
                    QevrInvalidArgumentException error = Assert.Throws<QevrInvalidArgumentException>(
                        () => Qevr.Track("level_completed", metadata), value == null ? "null" : value.GetType().Name);
                    StringAssert.Contains("metadata[\"bad\"]", error.Message);
                }
                Assert.That(Qevr.Track("level_completed", new Dictionary<string, object> { { "ok", 1 } }), Is.True);
            });
            Assert.That(Qevr.GetMemorySnapshot().TotalEvents, Is.EqualTo(1), "only the accepted event was recorded");
        }

        [Test]
        public void ObserverCallsAndAnalysesFromSeveralThreadsAtOnce()
        {
            Qevr.SetContinuity(true);
            Session(() => Qevr.ScreenView("Home"));
            Qevr.Start(App());
            const int observers = 4, eventsEach = 250;
            ConcurrentQueue<Exception> failures = new ConcurrentQueue<Exception>();
            int refused = 0;
            List<Thread> threads = new List<Thread>();
            for (int t = 0; t < observers; t++)
            {
                int id = t;
                threads.Add(new Thread(() =>
                {
                    try
                    {
                        for (int i = 0; i < eventsEach; i++)
                        {
                            bool taken;
                            switch (i % 4)
                            {
                                case 0: taken = Qevr.ScreenView("Screen " + id); break;
                                case 1: taken = Qevr.ButtonTap("button" + id, null, new Dictionary<string, object> { { "i", i } }); break;
                                case 2: taken = Qevr.Gesture("tap", "board"); break;
                                default: taken = Qevr.Track("step", new Dictionary<string, object> { { "thread", id } }); break;
                            }
                            if (!taken) Interlocked.Increment(ref refused);
                        }
                    }
                    catch (Exception e) { failures.Enqueue(e); }
                }));
            }
            for (int t = 0; t < 2; t++)
            {
                threads.Add(new Thread(() =>
                {
                    try
                    {
                        for (int i = 0; i < 5; i++)
                        {
                            Assert.That(Qevr.SummarizeBehavior().Confidence, Is.InRange(0.0, 1.0));
                            Assert.That(Qevr.DetectFrustration().Level, Is.Not.Empty);
                            Assert.That(Qevr.GetMemoryStats().SessionGraphCount, Is.GreaterThanOrEqualTo(1));
                            Qevr.Generate(Domain.Game);
                        }
                    }
                    catch (Exception e) { failures.Enqueue(e); }
                }));
            }
            threads.ForEach(t => t.Start());
            threads.ForEach(t => t.Join());
            Assert.That(failures, Is.Empty);
            Assert.That(refused, Is.EqualTo(0));
            Qevr.Shutdown();
            Assert.That(Qevr.WaitForBackgroundIdle(), Is.True);
            Assert.That(Qevr.GetMemorySnapshot().TotalEvents, Is.EqualTo(1 + observers * eventsEach), "no event lost");
        }
    }
}
