using System;
using System.IO;
using NUnit.Framework;

namespace QEVR.Tests
{
    // One data directory for the whole run, never the user's own.
    [SetUpFixture]
    public class DataDirectoryForTheRun
    {
        internal static string Path { get; private set; }

        [SetUp]
        public void Create()
        {
            Path = System.IO.Path.Combine(System.IO.Path.GetTempPath(), "qevr-dotnet-" + Guid.NewGuid().ToString("N"));
            Directory.CreateDirectory(Path);
            Qevr.SetDataDirectory(Path);
        }

        [TearDown]
        public void Remove()
        {
            Qevr.SetDataDirectory(null);
            Directory.Delete(Path, true);
        }
    }

    // Every test starts from an empty store with pruning off, and puts the
    // process-wide settings back to their defaults afterwards. A session cut
    // off by Shutdown knows neither its start nor its end, so a pruning run
    // takes its graph first; the tests that count graphs need it kept.
    public abstract class StoreFixture
    {
        protected static string DataDirectory
        {
            get { return DataDirectoryForTheRun.Path; }
        }

        [SetUp]
        public void StartFromAnEmptyStore()
        {
            Qevr.ClearMemory();
            Qevr.ConfigureMemory(new MemoryOptions { PruningEnabled = false });
        }

        [TearDown]
        public void RestoreDefaults()
        {
            LifecycleState state = Qevr.GetLifecycleState();
            if (state == LifecycleState.Running || state == LifecycleState.Paused) Qevr.Shutdown();
            Assert.That(Qevr.WaitForBackgroundIdle(), Is.True, "background work still running at teardown");
            Qevr.SetContinuity(false);
            Qevr.SetOutcomeLearning(false);
            Qevr.ConfigurePrivacy(null);
            Qevr.ConfigureMemory(null);
        }

        protected static Configuration App()
        {
            return new Configuration { AppId = "com.example.dotnet" };
        }

        // Starts, runs `session`, shuts down and waits for the saves, so that
        // memory and the analyses see the session.
        protected static void Session(Action session)
        {
            Qevr.Start(App());
            session();
            Qevr.Shutdown();
            Assert.That(Qevr.WaitForBackgroundIdle(), Is.True);
        }

        protected static void AssertRecent(DateTime date, string what)
        {
            Assert.That(date.Kind, Is.EqualTo(DateTimeKind.Utc), what);
            Assert.That((DateTime.UtcNow - date).Duration(), Is.LessThan(TimeSpan.FromMinutes(5)), what + ": " + date.ToString("o"));
        }
    }
}
