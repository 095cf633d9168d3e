using System;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using System.Text.RegularExpressions;
using System.Threading;
using NUnit.Framework;

namespace QEVR.Tests
{
    // What the binding does to the process: memory across many calls, and
    // the log callback that native code holds.
    [TestFixture]
    public class RuntimeTests : StoreFixture
    {
        private static long ResidentKilobytes()
        {
            Match match = Regex.Match(File.ReadAllText("/proc/self/status"), @"VmRSS:\s+(\d+) kB");
            Assert.That(match.Success, Is.True, "no VmRSS in /proc/self/status");
            return long.Parse(match.Groups[1].Value);
        }

        private static void StringCalls(int count)
        {
            LifecycleState state = Qevr.GetLifecycleState();
            for (int i = 0; i < count; i++)
            {
                if (Qevr.Version().Length == 0) Assert.Fail("empty version");
                if (Qevr.GetLifecycleState() != state) Assert.Fail("state changed");
                if (Qevr.GetMemoryOptions().MaxSessionCount <= 0) Assert.Fail("no session limit");
            }
        }

        [Test]
        public void HundredThousandCallsKeepMemoryFlat()
        {
            const int calls = 100000;
            StringCalls(5000);
            long nativeBefore = ResidentKilobytes();
            long managedBefore = GC.GetTotalMemory(true);
            long freedBefore = Utf8.FreedCount;
            StringCalls(calls);
            long managedAfter = GC.GetTotalMemory(true);
            long nativeAfter = ResidentKilobytes();
            Console.WriteLine("{0} x (Version, GetLifecycleState, GetMemoryOptions): VmRSS {1} kB -> {2} kB ({3:+0;-0} kB), " +
                "managed heap {4} B -> {5} B ({6:+0;-0} B)", calls, nativeBefore, nativeAfter, nativeAfter - nativeBefore,
                managedBefore, managedAfter, managedAfter - managedBefore);
            Assert.That(Utf8.FreedCount - freedBefore, Is.EqualTo(calls), "one release per options string");
            // An unreleased options string is ~100 bytes of malloc: 100,000 of
            // them add about 10 MB, where a sound run moves by 0.5 to 1.5 MB.
            Assert.That(nativeAfter - nativeBefore, Is.LessThan(4096));
            Assert.That(managedAfter - managedBefore, Is.LessThan(256 * 1024));
        }

        // Collects the lines that reach Qevr.Log while `action` runs.
        private static List<LogEventArgs> LinesDuring(Action action)
        {
            ConcurrentQueue<LogEventArgs> lines = new ConcurrentQueue<LogEventArgs>();
            EventHandler<LogEventArgs> handler = (sender, line) => lines.Enqueue(line);
            Qevr.Log += handler;
            try
            {
                action();
            }
            finally
            {
                Qevr.Log -= handler;
            }
            return lines.ToList();
        }

        public static readonly object[] LoggingCalls =
        {
            new object[] { (Action)(() => Qevr.ClearMemory()), "QEVMemory", "Diagnostics", LogLevel.Info, "Cleared local QEVMemory storage" },
            new object[] { (Action)(() => Qevr.ScreenView("Home")), "QEVObserver", "Events", LogLevel.Error,
                "Screen view ignored because QEVObserver is not running" },
            new object[] { (Action)(() => { Qevr.Start(new Configuration { AppId = "com.example.dotnet", IsFallbackRecommendationsEnabled = false }); Qevr.Shutdown(); }),
                "com.qevr.recommendations", "Lifecycle", LogLevel.Info, "Recommendations unavailable by configuration; module inactive" },
        };

        [TestCaseSource("LoggingCalls")]
        public void LogLinesReachTheEvent(Action action, string subsystem, string category, LogLevel level, string text)
        {
            List<LogEventArgs> lines = LinesDuring(action);
            Assert.That(lines.Any(l => l.Subsystem == subsystem && l.Category == category && l.Level == level && l.Text == text),
                string.Join("\n", lines.Select(l => l.Subsystem + "/" + l.Category + " " + l.Level + ": " + l.Text)));
        }

        [Test]
        public void LinesFromTheLibrarysThreadsReachHandlersOnTheBindingsThread()
        {
            ConcurrentQueue<KeyValuePair<string, LogEventArgs>> seen = new ConcurrentQueue<KeyValuePair<string, LogEventArgs>>();
            EventHandler<LogEventArgs> handler = (sender, line) =>
                seen.Enqueue(new KeyValuePair<string, LogEventArgs>(Thread.CurrentThread.Name, line));
            Qevr.Log += handler;
            Qevr.ConfigureMemory(new MemoryOptions { PruningEnabled = true });
            Session(() => { });
            Qevr.Log -= handler;
            Assert.That(seen.Any(p => p.Value.Category == "Pruning" && p.Value.Text.StartsWith("Pruned 0 event chunks")),
                string.Join("\n", seen.Select(p => p.Value.Text)));
            Assert.That(seen.Select(p => p.Key).Distinct(), Is.EqualTo(new[] { "QEVR log" }));
            Assert.That(seen.Select(p => p.Value.Dropped), Is.All.EqualTo(0));
        }

        [Test]
        public void NoLineReachesAHandlerOnceRemoved()
        {
            int count = 0;
            EventHandler<LogEventArgs> handler = (sender, line) => Interlocked.Increment(ref count);
            Qevr.Log += handler;
            Qevr.ClearMemory();
            Qevr.Log -= handler;
            Qevr.ClearMemory();
            Assert.That(count, Is.EqualTo(1));
        }

        [Test]
        public void AThrowingHandlerKeepsNeitherTheCallNorTheOtherHandlersFromTheLine()
        {
            // The collector goes last, so that its removal waits for the line.
            EventHandler<LogEventArgs> throwing = (sender, line) => { throw new InvalidOperationException("handler fault"); };
            ConcurrentQueue<string> texts = new ConcurrentQueue<string>();
            EventHandler<LogEventArgs> collector = (sender, line) => texts.Enqueue(line.Text);
            Qevr.Log += throwing;
            Qevr.Log += collector;
            Qevr.ClearMemory();
            Qevr.Log -= throwing;
            Qevr.Log -= collector;
            Assert.That(texts, Is.EqualTo(new[] { "Cleared local QEVMemory storage" }));
        }

        [Test]
        public void CallbackSurvivesCollectionsWhileThreadsLog()
        {
            const int threads = 4, rounds = 150;
            ConcurrentQueue<Exception> failures = new ConcurrentQueue<Exception>();
            int running = threads;
            List<LogEventArgs> lines = LinesDuring(() =>
            {
                List<Thread> workers = Enumerable.Range(0, threads).Select(t => new Thread(() =>
                {
                    try
                    {
                        for (int i = 0; i < rounds; i++)
                        {
                            Qevr.ClearMemory();
                            Assert.That(Qevr.ScreenView("Home"), Is.False);
                        }
                    }
                    catch (Exception e) { failures.Enqueue(e); }
                    finally { Interlocked.Decrement(ref running); }
                })).ToList();
                workers.ForEach(w => w.Start());
                while (Volatile.Read(ref running) > 0)
                {
                    GC.Collect();
                    GC.WaitForPendingFinalizers();
                }
                workers.ForEach(w => w.Join());
                GC.Collect();
                GC.WaitForPendingFinalizers();
                Qevr.ClearMemory();
            });
            Assert.That(failures, Is.Empty);
            Assert.That(lines.Count(l => l.Text == "Cleared local QEVMemory storage"), Is.EqualTo(threads * rounds + 1));
            Assert.That(lines.Count(l => l.Level == LogLevel.Error && l.Subsystem == "QEVObserver"), Is.EqualTo(threads * rounds));
        }
    }
}
