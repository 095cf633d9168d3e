using System;
using System.Collections.Generic;
using System.Threading;
using System.Threading.Tasks;

[assembly: System.Runtime.CompilerServices.InternalsVisibleTo("Qevr.Tests")]

namespace QEVR
{
    // qevr_lifecycle_state, as in qevr.h.
    public enum LifecycleState
    {
        NotStarted = 0,
        Starting = 1,
        Running = 2,
        Paused = 3,
        ShuttingDown = 4,
        Shutdown = 5
    }

    // qevr_log_level, as in qevr.h, from least to most serious. Default is
    // the library's warnings (a lifecycle step it ignored).
    public enum LogLevel
    {
        Debug = 0,
        Info = 1,
        Default = 2,
        Error = 3,
        Fault = 4
    }

    // What the host did with a recommendation.
    public enum Outcome
    {
        Shown,
        Applied,
        Dismissed
    }

    // One line the library logged. No line holds host or user data.
    public sealed class LogEventArgs : EventArgs
    {
        internal LogEventArgs(string subsystem, string category, LogLevel level, string text, long dropped)
        {
            Subsystem = subsystem;
            Category = category;
            Level = level;
            Text = text;
            Dropped = dropped;
        }

        // "QEVMemory", "QEVRCore", ...
        public string Subsystem { get; private set; }
        // "Lifecycle", "Events", ...
        public string Category { get; private set; }
        public LogLevel Level { get; private set; }
        public string Text { get; private set; }
        // Lines lost just before this one because nothing took them in time.
        public long Dropped { get; private set; }
    }

    // QEVR through its C API (libqevr). Every call may be made from any
    // thread. Failures throw a QevrException subclass whose Code is the C
    // status; a refused call changed nothing.
    //
    // Observer and lifecycle calls are cheap and belong on the game or UI
    // thread. Memory, analyses and Generate read the store: call them on a
    // worker, or use their ...Async forms, which run on the thread pool.
    // Each takes a CancellationToken that abandons it with a
    // QevrCancelledException.
    public static class Qevr
    {
        // ---- Errors and text

        private static void Check(int status)
        {
            if (status != 0) throw Failure(status);
        }

        // Reads the calling thread's last-error text; call it right after the
        // failed call, before any other qevr_* call on the thread.
        private static QevrException Failure(int status)
        {
            string text = Utf8.FromNativeLenient(Native.qevr_last_error());
            return QevrException.FromStatus(status, text);
        }

        // The string a call handed out, released in every case; on failure
        // the error is read before the release (itself a qevr_* call).
        private static string Taken(int status, IntPtr json)
        {
            QevrException error = status == 0 ? null : Failure(status);
            string text = Utf8.Take(json);
            if (error != null) throw error;
            if (text == null) throw new QevrInternalException("the library returned no text");
            return text;
        }

        private delegate int JsonCall(IntPtr cancel, out IntPtr json);

        // Runs `call` with a native cancel token tied to `cancellation`, or
        // with NULL when the token cannot be cancelled. The registration is
        // disposed (waiting for a running cancel) before the native token is
        // freed, so nothing cancels a freed token.
        private static string Blocking(CancellationToken cancellation, JsonCall call)
        {
            IntPtr json;
            if (!cancellation.CanBeCanceled) return Taken(call(IntPtr.Zero, out json), json);
            IntPtr token;
            Check(Native.qevr_cancel_token_new(out token));
            try
            {
                using (cancellation.Register(CancelNative, token))
                {
                    int status = call(token, out json);
                    return Taken(status, json);
                }
            }
            finally
            {
                Native.qevr_cancel_token_free(token);
            }
        }

        private static void CancelNative(object token)
        {
            Native.qevr_cancel_token_cancel((IntPtr)token);
        }

        private static byte[] Json(string json, string argument)
        {
            return Utf8.ToNative(json, argument);
        }

        // Metadata in the tagged form. Values: string, int, long, float,
        // double (finite), bool, DateTime (UTC or local, not Unspecified).
        // Any other type, a null value or a non-finite number throws
        // QevrInvalidArgumentException before anything reaches the library.
        internal static byte[] Metadata(IDictionary<string, object> metadata)
        {
            if (metadata == null) return null;
            JsonWriter writer = new JsonWriter().BeginObject();
            foreach (KeyValuePair<string, object> pair in metadata)
            {
                if (pair.Key == null) throw new QevrInvalidArgumentException("metadata has a null key");
                object value = pair.Value;
                string what = "metadata[\"" + pair.Key + "\"]";
                writer.Key(pair.Key).BeginObject().Key("type");
                if (value is string)
                {
                    writer.String("string").Key("value").String((string)value);
                }
                else if (value is bool)
                {
                    writer.String("bool").Key("value").Bool((bool)value);
                }
                else if (value is int || value is long)
                {
                    writer.String("int").Key("value").Integer(Convert.ToInt64(value));
                }
                else if (value is double || value is float)
                {
                    writer.String("double").Key("value").Number(Convert.ToDouble(value), what);
                }
                else if (value is DateTime)
                {
                    DateTime date = (DateTime)value;
                    if (date.Kind == DateTimeKind.Unspecified)
                        throw new QevrInvalidArgumentException(what + " is a DateTime of unspecified kind; " +
                            "give DateTimeKind.Utc or Local");
                    writer.String("date").Key("value").Number(Dates.ToSeconds(date.ToUniversalTime()), what);
                }
                else
                {
                    string type = value == null ? "null" : value.GetType().FullName;
                    throw new QevrInvalidArgumentException(what + " is a " + type +
                        "; metadata takes string, int, long, float, double, bool or DateTime");
                }
                writer.EndObject();
            }
            return Utf8.ToNative(writer.EndObject().ToString(), "metadata");
        }

        private static string DomainJson(Domain domain)
        {
            return domain == null ? null : domain.ToJson();
        }

        // ---- Version, data directory, background work

        // "major.minor.patch".
        public static string Version()
        {
            return Utf8.FromNative(Native.qevr_version());
        }

        // Memory keeps its files below `path`/QEVR/Memory; null restores the
        // platform's directory. Process-wide: the memory calls use it at
        // once, recording from the next Start.
        public static void SetDataDirectory(string path)
        {
            Check(Native.qevr_set_data_directory(Utf8.ToNative(path, "path")));
        }

        // True once the library's background work (the saves Shutdown
        // starts, pruning) is done; false if `timeout` passed first. Blocks.
        public static bool WaitForBackgroundIdle(TimeSpan timeout)
        {
            int idle;
            Check(Native.qevr_wait_for_background_idle((long)timeout.TotalMilliseconds, out idle));
            return idle == 1;
        }

        public static bool WaitForBackgroundIdle()
        {
            return WaitForBackgroundIdle(TimeSpan.FromSeconds(60));
        }

        // ---- Lifecycle

        // Starts the system; null is the default configuration (appId
        // "qevr.c-api"). QevrStateException unless not started or shut down.
        public static void Start(Configuration configuration)
        {
            string json = configuration == null ? null : configuration.ToJson();
            Check(Native.qevr_start(Json(json, "configuration")));
        }

        public static void Start()
        {
            Start(null);
        }

        public static void Pause()
        {
            Check(Native.qevr_pause());
        }

        public static void Resume()
        {
            Check(Native.qevr_resume());
        }

        // Ends the session; its saves go on in the background
        // (WaitForBackgroundIdle waits for them).
        public static void Shutdown()
        {
            Check(Native.qevr_shutdown());
        }

        public static LifecycleState GetLifecycleState()
        {
            return (LifecycleState)Native.qevr_get_lifecycle_state();
        }

        // ---- Observer. Each call returns whether the event was dispatched;
        // a refusal (not running, that tracking switched off, a blank or
        // over-long name) is false, not an exception.

        public static PrivacyOptions GetPrivacyOptions()
        {
            IntPtr json;
            int status = Native.qevr_observer_privacy_options(out json);
            return PrivacyOptions.FromJson(Taken(status, json));
        }

        // Takes effect at the next observer call; null restores the defaults.
        public static void ConfigurePrivacy(PrivacyOptions options)
        {
            string json = options == null ? null : options.ToJson();
            Check(Native.qevr_observer_configure(Json(json, "privacyOptions")));
        }

        public static bool Track(string name, IDictionary<string, object> metadata = null)
        {
            byte[] tags = Metadata(metadata);
            int dispatched;
            Check(Native.qevr_track(Utf8.ToNative(name, "name"), tags, out dispatched));
            return dispatched == 1;
        }

        public static bool ScreenView(string screenName, IDictionary<string, object> metadata = null)
        {
            byte[] tags = Metadata(metadata);
            int dispatched;
            Check(Native.qevr_screen_view(Utf8.ToNative(screenName, "screenName"), tags, out dispatched));
            return dispatched == 1;
        }

        public static bool ScreenDisappear(string screenName, IDictionary<string, object> metadata = null)
        {
            byte[] tags = Metadata(metadata);
            int dispatched;
            Check(Native.qevr_screen_disappear(Utf8.ToNative(screenName, "screenName"), tags, out dispatched));
            return dispatched == 1;
        }

        // `from` may be null (no previous screen).
        public static bool Navigation(string from, string to, IDictionary<string, object> metadata = null)
        {
            byte[] tags = Metadata(metadata);
            int dispatched;
            Check(Native.qevr_navigation(Utf8.ToNative(from, "from"), Utf8.ToNative(to, "to"), tags,
                out dispatched));
            return dispatched == 1;
        }

        // `title` may be null.
        public static bool ButtonTap(string componentId, string title = null,
            IDictionary<string, object> metadata = null)
        {
            byte[] tags = Metadata(metadata);
            int dispatched;
            Check(Native.qevr_button_tap(Utf8.ToNative(componentId, "componentId"), Utf8.ToNative(title, "title"),
                tags, out dispatched));
            return dispatched == 1;
        }

        // `gestureType`: "tap", "doubleTap", "longPress", "swipe", "pinch",
        // "pan", "rotate" or "custom"; `componentId` may be null.
        public static bool Gesture(string gestureType, string componentId = null,
            IDictionary<string, object> metadata = null)
        {
            byte[] tags = Metadata(metadata);
            int dispatched;
            Check(Native.qevr_gesture(Utf8.ToNative(gestureType, "gestureType"),
                Utf8.ToNative(componentId, "componentId"), tags, out dispatched));
            return dispatched == 1;
        }

        // ---- Memory. These work whether or not the system runs.

        public static MemoryOptions GetMemoryOptions()
        {
            IntPtr json;
            int status = Native.qevr_memory_options(out json);
            return MemoryOptions.FromJson(Taken(status, json));
        }

        // Takes effect at the next pruning run; null restores the defaults.
        public static void ConfigureMemory(MemoryOptions options)
        {
            string json = options == null ? null : options.ToJson();
            Check(Native.qevr_memory_configure(Json(json, "memoryOptions")));
        }

        // Memory across app runs (off by default), read at each start.
        public static void SetContinuity(bool enabled)
        {
            Check(Native.qevr_memory_set_continuity(enabled ? 1 : 0));
        }

        public static bool GetContinuity()
        {
            int enabled;
            Check(Native.qevr_memory_continuity(out enabled));
            return enabled != 0;
        }

        public static MemoryStats GetMemoryStats(CancellationToken cancellation = default(CancellationToken))
        {
            return MemoryStats.FromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_memory_stats(token, out json)));
        }

        public static Task<MemoryStats> GetMemoryStatsAsync(
            CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => GetMemoryStats(cancellation));
        }

        // Erases the store on disk.
        public static void ClearMemory(CancellationToken cancellation = default(CancellationToken))
        {
            if (!cancellation.CanBeCanceled)
            {
                Check(Native.qevr_memory_clear(IntPtr.Zero));
                return;
            }
            IntPtr token;
            Check(Native.qevr_cancel_token_new(out token));
            try
            {
                using (cancellation.Register(CancelNative, token))
                {
                    Check(Native.qevr_memory_clear(token));
                }
            }
            finally
            {
                Native.qevr_cancel_token_free(token);
            }
        }

        public static Task ClearMemoryAsync(CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => ClearMemory(cancellation));
        }

        public static MemorySnapshot GetMemorySnapshot(CancellationToken cancellation = default(CancellationToken))
        {
            return MemorySnapshot.FromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_memory_snapshot(token, out json)));
        }

        public static Task<MemorySnapshot> GetMemorySnapshotAsync(
            CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => GetMemorySnapshot(cancellation));
        }

        // ---- Analyses: rules over a fresh memory snapshot, cached for 300 s.
        // A null domain means none.

        public static BehaviorSummary SummarizeBehavior(CancellationToken cancellation = default(CancellationToken))
        {
            return BehaviorSummary.FromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_summarize_behavior(token, out json)));
        }

        public static Task<BehaviorSummary> SummarizeBehaviorAsync(
            CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => SummarizeBehavior(cancellation));
        }

        public static IntentAnalysis AnalyzeIntent(Domain domain,
            CancellationToken cancellation = default(CancellationToken))
        {
            byte[] domainJson = Json(DomainJson(domain), "domain");
            return IntentAnalysis.FromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_analyze_intent(domainJson, token, out json)));
        }

        public static Task<IntentAnalysis> AnalyzeIntentAsync(Domain domain,
            CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => AnalyzeIntent(domain, cancellation));
        }

        public static FrustrationAnalysis DetectFrustration(
            CancellationToken cancellation = default(CancellationToken))
        {
            return FrustrationAnalysis.FromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_detect_frustration(token, out json)));
        }

        public static Task<FrustrationAnalysis> DetectFrustrationAsync(
            CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => DetectFrustration(cancellation));
        }

        public static SkillAnalysis AnalyzeSkill(Domain domain,
            CancellationToken cancellation = default(CancellationToken))
        {
            byte[] domainJson = Json(DomainJson(domain), "domain");
            return SkillAnalysis.FromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_analyze_skill(domainJson, token, out json)));
        }

        public static Task<SkillAnalysis> AnalyzeSkillAsync(Domain domain,
            CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => AnalyzeSkill(domain, cancellation));
        }

        // ---- Recommendations

        // Ranked recommendations, best first, filtered by the policy; empty
        // while the system is not running. A null policy is the domain's
        // default; a policy without a domain is refused.
        public static IReadOnlyList<Recommendation> Generate(Domain domain, RecommendationPolicy policy = null,
            CancellationToken cancellation = default(CancellationToken))
        {
            byte[] domainJson = Json(DomainJson(domain), "domain");
            byte[] policyJson = Json(policy == null ? null : policy.ToJson(), "policy");
            return Recommendation.ListFromJson(Blocking(cancellation,
                (IntPtr token, out IntPtr json) => Native.qevr_generate(domainJson, policyJson, token, out json)));
        }

        public static Task<IReadOnlyList<Recommendation>> GenerateAsync(Domain domain,
            RecommendationPolicy policy = null, CancellationToken cancellation = default(CancellationToken))
        {
            return Task.Run(() => Generate(domain, policy, cancellation));
        }

        // ---- Outcomes

        // Outcome learning, off by default and process-wide. While it is on,
        // Generate leaves out advice dismissed twice in the last 30 days, and
        // advice applied unless its effect is "worse".
        public static void SetOutcomeLearning(bool enabled)
        {
            Check(Native.qevr_set_outcome_learning(enabled ? 1 : 0));
        }

        public static bool GetOutcomeLearning()
        {
            int enabled;
            Check(Native.qevr_outcome_learning(out enabled));
            return enabled != 0;
        }

        // Records what the host did with a recommendation Generate returned.
        // QevrStateException while outcome learning is off. Blocks for one
        // small file write.
        public static void RecordOutcome(Recommendation recommendation, Outcome outcome)
        {
            string json = recommendation == null ? null : recommendation.ToJson();
            Check(Native.qevr_record_outcome(Json(json, "recommendation"),
                Utf8.ToNative(OutcomeText(outcome), "outcome")));
        }

        public static Task RecordOutcomeAsync(Recommendation recommendation, Outcome outcome)
        {
            return Task.Run(() => RecordOutcome(recommendation, outcome));
        }

        internal static string OutcomeText(Outcome outcome)
        {
            switch (outcome)
            {
                case Outcome.Shown: return "shown";
                case Outcome.Applied: return "applied";
                case Outcome.Dismissed: return "dismissed";
                default: throw new QevrInvalidArgumentException("outcome " + (int)outcome + " is not an Outcome");
            }
        }

        // Every advice with recorded outcomes, in the order first recorded,
        // with its effect once applied. Readable while learning is off. Reads
        // the outcome log and, once something was applied, the sessions.
        public static IReadOnlyList<OutcomeHistory> GetOutcomes()
        {
            IntPtr json;
            int status = Native.qevr_outcomes(out json);
            return OutcomeHistory.ListFromJson(Taken(status, json));
        }

        public static Task<IReadOnlyList<OutcomeHistory>> GetOutcomesAsync()
        {
            return Task.Run(() => GetOutcomes());
        }

        // ---- Log lines

        // Lines the library logs while no pump takes them wait in a queue of
        // this many; beyond it the oldest go, and the next line says so.
        private const long LogQueueCapacity = 10000;
        // How long the pump waits in native code at a time, so that it
        // notices an ended queue even if it missed the wake-up.
        private const long LogWaitMs = 250;

        private static readonly object logLock = new object();
        private static EventHandler<LogEventArgs> logHandlers;
        // The pump of the current queue, and its generation: a pump whose
        // generation is no longer current stops. Both guarded by logLock.
        private static Thread logPump;
        private static int logGeneration;
        private static bool unloadHooked;

        // The library's log lines, from the first handler on; while there is
        // none they go to the platform's log (syslog on Linux). Handlers run
        // one line at a time, in order, on a background thread of this
        // binding, never on a thread of the library (a runtime that such a
        // thread had entered could wait for it at exit). Keep them short. An
        // exception a handler throws is dropped. Do not add or remove
        // handlers from inside a handler. The lines logged before the last
        // handler is removed reach it before the removal returns, and none
        // after. A handler removed while others stay misses the lines still
        // queued, and may still get one that was on its way.
        public static event EventHandler<LogEventArgs> Log
        {
            add
            {
                lock (logLock)
                {
                    EventHandler<LogEventArgs> next = logHandlers + value;
                    if (logHandlers == null && next != null)
                    {
                        Check(Native.qevr_set_log_queue(LogQueueCapacity));
                        HookUnload();
                        int generation = Interlocked.Increment(ref logGeneration);
                        logPump = new Thread(() => PumpLines(generation));
                        logPump.IsBackground = true;
                        logPump.Name = "QEVR log";
                        logPump.Start();
                    }
                    Volatile.Write(ref logHandlers, next);
                }
            }
            remove
            {
                lock (logLock)
                {
                    EventHandler<LogEventArgs> next = logHandlers - value;
                    if (next == null) StopPump();
                    Volatile.Write(ref logHandlers, next);
                }
            }
        }

        // Ends the queue and waits until the pump has delivered what it held,
        // unless this is the pump (a handler that broke the rule above).
        private static void StopPump()
        {
            Native.qevr_set_log_callback(IntPtr.Zero, IntPtr.Zero);
            Thread pump = logPump;
            logPump = null;
            if (pump != null && pump != Thread.CurrentThread) pump.Join();
        }

        private static void HookUnload()
        {
            if (unloadHooked) return;
            unloadHooked = true;
            AppDomain.CurrentDomain.ProcessExit += StopForwarding;
            AppDomain.CurrentDomain.DomainUnload += StopForwarding;
        }

        // Before the runtime or this domain goes, the lines go back to the
        // platform's log.
        private static void StopForwarding(object sender, EventArgs e)
        {
            lock (logLock)
            {
                if (logHandlers == null) return;
                StopPump();
                Volatile.Write(ref logHandlers, null);
            }
        }

        // Takes lines until the queue has ended and is empty, or a newer pump
        // has replaced this one.
        private static void PumpLines(int generation)
        {
            while (Volatile.Read(ref logGeneration) == generation)
            {
                IntPtr json;
                int status = Native.qevr_next_log_line(LogWaitMs, out json);
                string text = Utf8.Take(json);
                if (status != 0) return;
                if (text == null) continue;
                try
                {
                    Deliver(ParseLine(text));
                }
                catch (Exception)
                {
                    // A line this binding cannot read is dropped, not the pump.
                }
            }
        }

        internal static LogEventArgs ParseLine(string json)
        {
            JsonFields f = JsonFields.Parse(json, "log line");
            LogLevel level;
            switch (f.String("level"))
            {
                case "debug": level = LogLevel.Debug; break;
                case "info": level = LogLevel.Info; break;
                case "error": level = LogLevel.Error; break;
                case "fault": level = LogLevel.Fault; break;
                default: level = LogLevel.Default; break;
            }
            return new LogEventArgs(f.String("subsystem"), f.String("category"), level, f.String("text"),
                f.Integer("dropped"));
        }

        private static void Deliver(LogEventArgs line)
        {
            EventHandler<LogEventArgs> handlers = Volatile.Read(ref logHandlers);
            if (handlers == null) return;
            foreach (Delegate handler in handlers.GetInvocationList())
            {
                try
                {
                    ((EventHandler<LogEventArgs>)handler)(null, line);
                }
                catch (Exception)
                {
                    // A failing handler must not keep the others from the line.
                }
            }
        }
    }
}
