using System;
using System.Collections.Generic;

namespace QEVR
{
    // ---- Inputs. A property left null is left out of the JSON, so it keeps
    // the library's default; a record that is null is the default record.

    // How QEVR starts. The defaults need nothing but AppId: background
    // processing and the built-in recommendation engines on, AI services off.
    public sealed class Configuration
    {
        public string AppId { get; set; }
        // "development", "staging" or "production".
        public string Environment { get; set; }
        // "trace", "debug", "info", "warning", "error", "critical" or "off".
        public string LogLevel { get; set; }
        public bool? IsDiagnosticsEnabled { get; set; }
        public bool? IsBackgroundProcessingEnabled { get; set; }
        public bool? IsOnDeviceAIEnabled { get; set; }
        public bool? IsCloudAIEnabled { get; set; }
        public bool? IsLocalLLMEnabled { get; set; }
        public bool? IsFallbackRecommendationsEnabled { get; set; }

        internal string ToJson()
        {
            JsonWriter writer = new JsonWriter().BeginObject();
            Records.Text(writer, "appId", AppId);
            Records.Case(writer, "environment", Environment);
            Records.Case(writer, "logLevel", LogLevel);
            Records.Flag(writer, "isDiagnosticsEnabled", IsDiagnosticsEnabled);
            Records.Flag(writer, "isBackgroundProcessingEnabled", IsBackgroundProcessingEnabled);
            Records.Flag(writer, "isOnDeviceAIEnabled", IsOnDeviceAIEnabled);
            Records.Flag(writer, "isCloudAIEnabled", IsCloudAIEnabled);
            Records.Flag(writer, "isLocalLLMEnabled", IsLocalLLMEnabled);
            Records.Flag(writer, "isFallbackRecommendationsEnabled", IsFallbackRecommendationsEnabled);
            return writer.EndObject().ToString();
        }
    }

    // What the observer may record. Qevr.GetPrivacyOptions() fills every
    // property.
    public sealed class PrivacyOptions
    {
        public bool? AllowScreenTracking { get; set; }
        public bool? AllowGestureTracking { get; set; }
        public bool? AllowComponentTracking { get; set; }
        public bool? AllowCustomEvents { get; set; }
        public bool? AllowUIKitHelpers { get; set; }
        public bool? AllowSwiftUIHelpers { get; set; }

        internal string ToJson()
        {
            JsonWriter writer = new JsonWriter().BeginObject();
            Records.Flag(writer, "allowScreenTracking", AllowScreenTracking);
            Records.Flag(writer, "allowGestureTracking", AllowGestureTracking);
            Records.Flag(writer, "allowComponentTracking", AllowComponentTracking);
            Records.Flag(writer, "allowCustomEvents", AllowCustomEvents);
            Records.Flag(writer, "allowUIKitHelpers", AllowUIKitHelpers);
            Records.Flag(writer, "allowSwiftUIHelpers", AllowSwiftUIHelpers);
            return writer.EndObject().ToString();
        }

        internal static PrivacyOptions FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "privacyOptions");
            return new PrivacyOptions
            {
                AllowScreenTracking = f.Bool("allowScreenTracking"),
                AllowGestureTracking = f.Bool("allowGestureTracking"),
                AllowComponentTracking = f.Bool("allowComponentTracking"),
                AllowCustomEvents = f.Bool("allowCustomEvents"),
                AllowUIKitHelpers = f.Bool("allowUIKitHelpers"),
                AllowSwiftUIHelpers = f.Bool("allowSwiftUIHelpers"),
            };
        }
    }

    // Limits of the store on disk, applied at the next pruning run.
    // Qevr.GetMemoryOptions() fills every property.
    public sealed class MemoryOptions
    {
        public long? MaxDiskUsageMB { get; set; }
        public long? MaxEventAgeDays { get; set; }
        public long? MaxSessionCount { get; set; }
        public bool? PruningEnabled { get; set; }

        internal string ToJson()
        {
            JsonWriter writer = new JsonWriter().BeginObject();
            Records.Whole(writer, "maxDiskUsageMB", MaxDiskUsageMB);
            Records.Whole(writer, "maxEventAgeDays", MaxEventAgeDays);
            Records.Whole(writer, "maxSessionCount", MaxSessionCount);
            Records.Flag(writer, "pruningEnabled", PruningEnabled);
            return writer.EndObject().ToString();
        }

        internal static MemoryOptions FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "memoryOptions");
            return new MemoryOptions
            {
                MaxDiskUsageMB = f.Integer("maxDiskUsageMB"),
                MaxEventAgeDays = f.Integer("maxEventAgeDays"),
                MaxSessionCount = f.Integer("maxSessionCount"),
                PruningEnabled = f.Bool("pruningEnabled"),
            };
        }
    }

    // Which recommendations Generate may return. Keys left null take the
    // domain's default policy; a policy needs a domain.
    public sealed class RecommendationPolicy
    {
        public double? MinimumConfidence { get; set; }
        public bool? AllowUIRecommendations { get; set; }
        public bool? AllowNavigationRecommendations { get; set; }
        public bool? AllowFeatureRecommendations { get; set; }
        public bool? AllowPersonalization { get; set; }
        public bool? AllowGameplayRecommendations { get; set; }
        public int? MaxRecommendations { get; set; }
        public IList<string> ProtectedComponentIds { get; set; }
        public IList<string> ProtectedScreenNames { get; set; }

        internal string ToJson()
        {
            JsonWriter writer = new JsonWriter().BeginObject();
            if (MinimumConfidence.HasValue)
                writer.Key("minimumConfidence").Number(MinimumConfidence.Value, "MinimumConfidence");
            Records.Flag(writer, "allowUIRecommendations", AllowUIRecommendations);
            Records.Flag(writer, "allowNavigationRecommendations", AllowNavigationRecommendations);
            Records.Flag(writer, "allowFeatureRecommendations", AllowFeatureRecommendations);
            Records.Flag(writer, "allowPersonalization", AllowPersonalization);
            Records.Flag(writer, "allowGameplayRecommendations", AllowGameplayRecommendations);
            Records.Whole(writer, "maxRecommendations", MaxRecommendations);
            Records.TextList(writer, "protectedComponentIds", ProtectedComponentIds);
            Records.TextList(writer, "protectedScreenNames", ProtectedScreenNames);
            return writer.EndObject().ToString();
        }
    }

    // The kind of experience the analyses and recommendations assume.
    public sealed class Domain
    {
        private readonly string name;
        private readonly string custom;

        private Domain(string name, string custom)
        {
            this.name = name;
            this.custom = custom;
        }

        public static readonly Domain MobileApp = new Domain("mobileApp", null);
        public static readonly Domain Game = new Domain("game", null);
        public static readonly Domain Ecommerce = new Domain("ecommerce", null);
        public static readonly Domain Fintech = new Domain("fintech", null);
        public static readonly Domain Telecom = new Domain("telecom", null);

        // A domain of the host's own, such as "travel".
        public static Domain Custom(string text)
        {
            return new Domain("custom", text);
        }

        // A case by its name ("game"), for cases newer than this binding;
        // the library refuses a name it does not know.
        public static Domain Named(string caseName)
        {
            return new Domain(caseName, null);
        }

        public override string ToString()
        {
            return custom == null ? name : name + ":" + custom;
        }

        internal string ToJson()
        {
            JsonWriter writer = new JsonWriter().BeginObject().Key(name ?? "").BeginObject();
            if (custom != null) writer.Key("_0").String(custom);
            return writer.EndObject().EndObject().ToString();
        }
    }

    // ---- Results, decoded from the library's JSON. Dates are UTC.

    public sealed class MemoryStats
    {
        public long EstimatedDiskUsageBytes { get; private set; }
        public long EventChunkCount { get; private set; }
        public long SessionGraphCount { get; private set; }
        public bool HasUserGraph { get; private set; }
        // Null while the store holds no event.
        public DateTime? OldestEventDate { get; private set; }
        public DateTime? NewestEventDate { get; private set; }

        internal static MemoryStats FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "memoryStats");
            return new MemoryStats
            {
                EstimatedDiskUsageBytes = f.Integer("estimatedDiskUsageBytes"),
                EventChunkCount = f.Integer("eventChunkCount"),
                SessionGraphCount = f.Integer("sessionGraphCount"),
                HasUserGraph = f.Bool("hasUserGraph"),
                OldestEventDate = f.OptionalDate("oldestEventDate"),
                NewestEventDate = f.OptionalDate("newestEventDate"),
            };
        }
    }

    // The aggregate, redacted view of memory that the analyses read.
    public sealed class MemorySnapshot
    {
        public long TotalSessions { get; private set; }
        public long TotalEvents { get; private set; }
        public IReadOnlyDictionary<string, long> FrequentlyVisitedScreens { get; private set; }
        public IReadOnlyDictionary<string, long> FrequentComponents { get; private set; }
        public IReadOnlyDictionary<string, long> FrequentCustomEvents { get; private set; }
        // Seconds; null when no session has both ends.
        public double? AverageSessionDuration { get; private set; }
        // "From->To" with its count.
        public IReadOnlyDictionary<string, long> RecentNavigationPatterns { get; private set; }
        public IReadOnlyList<string> RecentScreenSequences { get; private set; }
        public DateTime? TimeWindowStart { get; private set; }
        public DateTime? TimeWindowEnd { get; private set; }

        internal static MemorySnapshot FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "memorySnapshot");
            return new MemorySnapshot
            {
                TotalSessions = f.Integer("totalSessions"),
                TotalEvents = f.Integer("totalEvents"),
                FrequentlyVisitedScreens = f.Counts("frequentlyVisitedScreens"),
                FrequentComponents = f.Counts("frequentComponents"),
                FrequentCustomEvents = f.Counts("frequentCustomEvents"),
                AverageSessionDuration = f.OptionalNumber("averageSessionDuration"),
                RecentNavigationPatterns = f.Counts("recentNavigationPatterns"),
                RecentScreenSequences = f.Strings("recentScreenSequences"),
                TimeWindowStart = f.OptionalDate("timeWindowStart"),
                TimeWindowEnd = f.OptionalDate("timeWindowEnd"),
            };
        }
    }

    public sealed class BehaviorSummary
    {
        public string Summary { get; private set; }
        public IReadOnlyList<string> DominantScreens { get; private set; }
        public IReadOnlyList<string> DominantActions { get; private set; }
        public IReadOnlyList<string> BehaviorPatterns { get; private set; }
        public double Confidence { get; private set; }
        public DateTime GeneratedAt { get; private set; }

        internal static BehaviorSummary FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "behaviorSummary");
            return new BehaviorSummary
            {
                Summary = f.String("summary"),
                DominantScreens = f.Strings("dominantScreens"),
                DominantActions = f.Strings("dominantActions"),
                BehaviorPatterns = f.Strings("behaviorPatterns"),
                Confidence = f.Number("confidence"),
                GeneratedAt = f.Date("generatedAt"),
            };
        }
    }

    public sealed class IntentAnalysis
    {
        public string PrimaryIntent { get; private set; }
        public IReadOnlyList<string> SecondaryIntents { get; private set; }
        public IReadOnlyList<string> Evidence { get; private set; }
        public double Confidence { get; private set; }
        public DateTime GeneratedAt { get; private set; }

        internal static IntentAnalysis FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "intentAnalysis");
            return new IntentAnalysis
            {
                PrimaryIntent = f.String("primaryIntent"),
                SecondaryIntents = f.Strings("secondaryIntents"),
                Evidence = f.Strings("evidence"),
                Confidence = f.Number("confidence"),
                GeneratedAt = f.Date("generatedAt"),
            };
        }
    }

    public sealed class FrustrationAnalysis
    {
        // "none", "low", "medium" or "high".
        public string Level { get; private set; }
        public IReadOnlyList<string> Signals { get; private set; }
        public IReadOnlyList<string> LikelyCauses { get; private set; }
        public double Confidence { get; private set; }
        public DateTime GeneratedAt { get; private set; }

        internal static FrustrationAnalysis FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "frustrationAnalysis");
            return new FrustrationAnalysis
            {
                Level = f.String("level"),
                Signals = f.Strings("signals"),
                LikelyCauses = f.Strings("likelyCauses"),
                Confidence = f.Number("confidence"),
                GeneratedAt = f.Date("generatedAt"),
            };
        }
    }

    public sealed class SkillAnalysis
    {
        // "beginner", "intermediate", "advanced", "expert" or "unknown".
        public string SkillLevel { get; private set; }
        public IReadOnlyList<string> Evidence { get; private set; }
        // "increase", "decrease", ...; null when none is suggested.
        public string RecommendedDifficultyAdjustment { get; private set; }
        public double Confidence { get; private set; }
        public DateTime GeneratedAt { get; private set; }

        internal static SkillAnalysis FromJson(string json)
        {
            JsonFields f = JsonFields.Parse(json, "skillAnalysis");
            return new SkillAnalysis
            {
                SkillLevel = f.String("skillLevel"),
                Evidence = f.Strings("evidence"),
                RecommendedDifficultyAdjustment = f.OptionalString("recommendedDifficultyAdjustment"),
                Confidence = f.Number("confidence"),
                GeneratedAt = f.Date("generatedAt"),
            };
        }
    }

    // The feature a "suggestFeature" action proposes.
    public sealed class FeaturePayload
    {
        public string FeatureId { get; private set; }
        public string FeatureName { get; private set; }
        public string ReasonCode { get; private set; }

        internal static FeaturePayload FromFields(JsonFields f)
        {
            if (f == null) return null;
            return new FeaturePayload
            {
                FeatureId = f.String("featureId"),
                FeatureName = f.String("featureName"),
                ReasonCode = f.String("reasonCode"),
            };
        }
    }

    // What a recommendation proposes to do. Kind is one of
    // "reorderComponent", "highlightComponent", "hideComponent",
    // "suggestShortcut", "suggestFeature", "adjustDifficulty", "showHelp",
    // "custom"; the other properties are those of that kind, null otherwise.
    public sealed class RecommendationAction
    {
        public string Kind { get; private set; }
        public string ComponentId { get; private set; }
        public string ScreenName { get; private set; }
        public long? TargetPosition { get; private set; }
        public string SourceScreen { get; private set; }
        public string DestinationScreen { get; private set; }
        public string ShortcutId { get; private set; }
        public string FeatureId { get; private set; }
        public FeaturePayload FeaturePayload { get; private set; }
        // Between -3 and 3, never 0.
        public double? DifficultyDelta { get; private set; }
        public string DifficultyReason { get; private set; }
        public string TargetGameMode { get; private set; }
        public IReadOnlyDictionary<string, string> CustomPayload { get; private set; }

        internal static RecommendationAction FromFields(JsonFields f)
        {
            return new RecommendationAction
            {
                Kind = f.String("kind"),
                ComponentId = f.OptionalString("componentId"),
                ScreenName = f.OptionalString("screenName"),
                TargetPosition = f.OptionalInteger("targetPosition"),
                SourceScreen = f.OptionalString("sourceScreen"),
                DestinationScreen = f.OptionalString("destinationScreen"),
                ShortcutId = f.OptionalString("shortcutId"),
                FeatureId = f.OptionalString("featureId"),
                FeaturePayload = FeaturePayload.FromFields(f.OptionalObject("featurePayload")),
                DifficultyDelta = f.OptionalNumber("difficultyDelta"),
                DifficultyReason = f.OptionalString("difficultyReason"),
                TargetGameMode = f.OptionalString("targetGameMode"),
                CustomPayload = f.OptionalStringMap("customPayload"),
            };
        }
    }

    // Made by Generate only: it keeps the object the library sent, which
    // RecordOutcome hands back.
    public sealed class Recommendation
    {
        private object source;

        private Recommendation()
        {
        }

        public string Id { get; private set; }
        // "ui", "navigation", "feature", "personalization", "gameplay" or
        // "diagnostic".
        public string Type { get; private set; }
        public string Title { get; private set; }
        public string Summary { get; private set; }
        public double Confidence { get; private set; }
        // "low", "medium", "high" or "critical".
        public string Priority { get; private set; }
        public string Reason { get; private set; }
        public IReadOnlyList<string> Evidence { get; private set; }
        public RecommendationAction Action { get; private set; }
        public DateTime CreatedAt { get; private set; }
        public DateTime? ExpiresAt { get; private set; }

        internal static IReadOnlyList<Recommendation> ListFromJson(string json)
        {
            List<object> items = JsonFields.ParseArray(json, "recommendations");
            List<Recommendation> result = new List<Recommendation>(items.Count);
            for (int i = 0; i < items.Count; i++)
            {
                JsonFields f = JsonFields.Of(items[i], "recommendations[" + i + "]");
                result.Add(new Recommendation
                {
                    Id = f.String("id"),
                    Type = f.String("type"),
                    Title = f.String("title"),
                    Summary = f.String("summary"),
                    Confidence = f.Number("confidence"),
                    Priority = f.String("priority"),
                    Reason = f.String("reason"),
                    Evidence = f.Strings("evidence"),
                    Action = RecommendationAction.FromFields(f.Object("action")),
                    CreatedAt = f.Date("createdAt"),
                    ExpiresAt = f.OptionalDate("expiresAt"),
                    source = items[i],
                });
            }
            return result.AsReadOnly();
        }

        // The recommendation as the library sent it, members this binding
        // does not know included.
        internal string ToJson()
        {
            return new JsonWriter().Value(source, "recommendation").ToString();
        }
    }

    // What changed after an advice was first applied, on the one figure
    // that fits its action, comparing this user's latest sessions before
    // with those after. An observed change, not proof that the advice
    // caused it: anything else that changed in between shows up too.
    public sealed class OutcomeEffect
    {
        // "improved", "unchanged", "worse" or "tooEarly" (too few sessions
        // on either side to tell).
        public string Effect { get; private set; }
        // The figure: "repeatedInteractions", "failuresAndRetries",
        // "featureUse" or "destinationSteps".
        public string Signal { get; private set; }
        public long SessionsBefore { get; private set; }
        public long SessionsAfter { get; private set; }
        // The figure's mean over each side's sessions.
        public double Before { get; private set; }
        public double After { get; private set; }
        // "destinationSteps" only: the share of sessions that reached the
        // destination; null for the other figures.
        public double? ReachedBefore { get; private set; }
        public double? ReachedAfter { get; private set; }

        internal static OutcomeEffect FromFields(JsonFields f)
        {
            if (f == null) return null;
            return new OutcomeEffect
            {
                Effect = f.String("effect"),
                Signal = f.String("signal"),
                SessionsBefore = f.Integer("sessionsBefore"),
                SessionsAfter = f.Integer("sessionsAfter"),
                Before = f.Number("before"),
                After = f.Number("after"),
                ReachedBefore = f.OptionalNumber("reachedBefore"),
                ReachedAfter = f.OptionalNumber("reachedAfter"),
            };
        }
    }

    // Every outcome recorded for one advice. The same advice comes back from
    // each generation with a new Id; its Key ("<type>/<kind>/<target>", for
    // example "gameplay/adjustDifficulty/decrease") stays.
    public sealed class OutcomeHistory
    {
        public string Key { get; private set; }
        // Type, Title and Action of the latest recommendation recorded.
        public string Type { get; private set; }
        public string Title { get; private set; }
        public RecommendationAction Action { get; private set; }
        public long Shown { get; private set; }
        public long Applied { get; private set; }
        public long Dismissed { get; private set; }
        public DateTime FirstRecordedAt { get; private set; }
        public DateTime LastRecordedAt { get; private set; }
        // Null until applied; the line between before and after.
        public DateTime? FirstAppliedAt { get; private set; }
        // The latest dismissals, oldest first.
        public IReadOnlyList<DateTime> DismissedAt { get; private set; }
        // Null until applied, and for actions without a figure (hiding a
        // component, custom actions).
        public OutcomeEffect Effect { get; private set; }
        // Whether outcome learning keeps the advice out of Generate now.
        public bool IsHeldBack { get; private set; }

        internal static IReadOnlyList<OutcomeHistory> ListFromJson(string json)
        {
            List<object> items = JsonFields.ParseArray(json, "outcomes");
            List<OutcomeHistory> result = new List<OutcomeHistory>(items.Count);
            for (int i = 0; i < items.Count; i++)
            {
                JsonFields f = JsonFields.Of(items[i], "outcomes[" + i + "]");
                result.Add(new OutcomeHistory
                {
                    Key = f.String("key"),
                    Type = f.String("type"),
                    Title = f.String("title"),
                    Action = RecommendationAction.FromFields(f.Object("action")),
                    Shown = f.Integer("shown"),
                    Applied = f.Integer("applied"),
                    Dismissed = f.Integer("dismissed"),
                    FirstRecordedAt = f.Date("firstRecordedAt"),
                    LastRecordedAt = f.Date("lastRecordedAt"),
                    FirstAppliedAt = f.OptionalDate("firstAppliedAt"),
                    DismissedAt = f.DateList("dismissedAt"),
                    Effect = OutcomeEffect.FromFields(f.OptionalObject("effect")),
                    IsHeldBack = f.Bool("isHeldBack"),
                });
            }
            return result.AsReadOnly();
        }
    }

    // Writers of optional members shared by the input records.
    internal static class Records
    {
        internal static void Text(JsonWriter writer, string key, string value)
        {
            if (value != null) writer.Key(key).String(value);
        }

        // An enumeration case in its keyed form, {"<case>":{}}.
        internal static void Case(JsonWriter writer, string key, string value)
        {
            if (value != null) writer.Key(key).BeginObject().Key(value).BeginObject().EndObject().EndObject();
        }

        internal static void Flag(JsonWriter writer, string key, bool? value)
        {
            if (value.HasValue) writer.Key(key).Bool(value.Value);
        }

        internal static void Whole(JsonWriter writer, string key, long? value)
        {
            if (value.HasValue) writer.Key(key).Integer(value.Value);
        }

        internal static void TextList(JsonWriter writer, string key, IList<string> values)
        {
            if (values == null) return;
            writer.Key(key).BeginArray();
            foreach (string value in values)
            {
                if (value == null) throw new QevrInvalidArgumentException(key + " holds a null");
                writer.String(value);
            }
            writer.EndArray();
        }
    }
}
