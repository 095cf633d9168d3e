using System;
using System.Collections.Generic;
using System.Globalization;
using System.Text;
using System.Threading;
using NUnit.Framework;

namespace QEVR.Tests
{
    // The binding's own JSON: the strict reader of results and the tagged
    // metadata it writes.
    [TestFixture]
    public class JsonTests
    {
        [TestCase("\"a\\\"b\\\\c\\/d\\b\\f\\n\\r\\t\"", "a\"b\\c/d\b\f\n\r\t")]
        [TestCase("\"\\u00e9\\u20AC\"", "é€")]
        [TestCase("\"\\ud83d\\ude00 raw 😀\"", "😀 raw 😀")]
        [TestCase(" \"x\" \r\n\t", "x")]
        public void ReadsStrings(string json, string expected)
        {
            Assert.That(JsonReader.Parse(json), Is.EqualTo(expected));
        }

        [TestCase("0", 0L)]
        [TestCase("-0", 0L)]
        [TestCase("9223372036854775807", long.MaxValue)]
        [TestCase("-12", -12L)]
        [TestCase("0.875", 0.875)]
        [TestCase("-1.5e3", -1500.0)]
        [TestCase("2E-2", 0.02)]
        [TestCase("9223372036854775808", 9223372036854775808.0)]
        public void ReadsNumbersAsLongOrDouble(string json, object expected)
        {
            object value = JsonReader.Parse(json);
            Assert.That(value, Is.TypeOf(expected.GetType()));
            Assert.That(value, Is.EqualTo(expected));
        }

        [Test]
        public void ReadsNestedValues()
        {
            Dictionary<string, object> root = (Dictionary<string, object>)JsonReader.Parse(
                "{\"a\":[true,false,null,{}],\"b\":{\"c\":[]},\"\":1}");
            List<object> a = (List<object>)root["a"];
            Assert.That(a.Count, Is.EqualTo(4));
            Assert.That(a[0], Is.EqualTo(true));
            Assert.That(a[1], Is.EqualTo(false));
            Assert.That(a[2], Is.Null);
            Assert.That(((Dictionary<string, object>)a[3]).Count, Is.EqualTo(0));
            Assert.That(((List<object>)((Dictionary<string, object>)root["b"])["c"]).Count, Is.EqualTo(0));
            Assert.That(root[""], Is.EqualTo(1L));
        }

        [TestCase("", "unexpected end")]
        [TestCase("{", "unexpected end")]
        [TestCase("[1,]", "unexpected character")]
        [TestCase("{\"a\":1,}", "expected a key")]
        [TestCase("{\"a\" 1}", "expected ':'")]
        [TestCase("[1 2]", "expected ',' or ']'")]
        [TestCase("{'a':1}", "expected a key")]
        [TestCase("01", "text after the value")]
        [TestCase("1.", "after '.'")]
        [TestCase(".5", "unexpected character")]
        [TestCase("+1", "unexpected character")]
        [TestCase("1e", "exponent")]
        [TestCase("-", "expected a digit")]
        [TestCase("1e999", "out of range")]
        [TestCase("tru", "expected true")]
        [TestCase("nul", "expected null")]
        [TestCase("\"abc", "unterminated string")]
        [TestCase("\"a\u0001\"", "control character")]
        [TestCase("\"\\x\"", "invalid escape")]
        [TestCase("\"\\u12G4\"", "invalid \\u escape")]
        [TestCase("\"\\u12\"", "short \\u escape")]
        [TestCase("\"\\ud800\"", "unpaired surrogate escape")]
        [TestCase("\"\\ud800\\u0041\"", "unpaired surrogate escape")]
        [TestCase("\"\\udc00\\ud800\"", "unpaired surrogate escape")]
        [TestCase("{\"a\":1,\"a\":2}", "duplicate key \"a\"")]
        [TestCase("{} {}", "text after the value")]
        public void RefusesMalformedText(string json, string reason)
        {
            QevrInvalidJsonException error = Assert.Throws<QevrInvalidJsonException>(() => JsonReader.Parse(json));
            Assert.That(error.Code, Is.EqualTo(QevrStatus.InvalidJson));
            StringAssert.Contains(reason, error.Message);
        }

        [Test]
        public void RefusesARawLoneSurrogate()
        {
            string json = "\"a" + (char)0xD800 + "\"";
            StringAssert.Contains("unpaired surrogate", Assert.Throws<QevrInvalidJsonException>(() => JsonReader.Parse(json)).Message);
        }

        [Test]
        public void RefusesDeepNesting()
        {
            string deep = new string('[', 300) + new string(']', 300);
            StringAssert.Contains("nested too deeply", Assert.Throws<QevrInvalidJsonException>(() => JsonReader.Parse(deep)).Message);
        }

        [TestCase("{}", "memoryStats.estimatedDiskUsageBytes: missing")]
        [TestCase("{\"estimatedDiskUsageBytes\":1.5,\"eventChunkCount\":0,\"sessionGraphCount\":0,\"hasUserGraph\":false}",
            "memoryStats.estimatedDiskUsageBytes: expected an integer")]
        [TestCase("{\"estimatedDiskUsageBytes\":1,\"eventChunkCount\":0,\"sessionGraphCount\":0,\"hasUserGraph\":0}",
            "memoryStats.hasUserGraph: expected true or false")]
        [TestCase("[]", "memoryStats: expected an object")]
        public void RecordOfTheWrongShapeNamesThePath(string json, string message)
        {
            StringAssert.Contains(message, Assert.Throws<QevrInvalidJsonException>(() => MemoryStats.FromJson(json)).Message);
        }

        [Test]
        public void RecommendationDecodesItsActionAndDates()
        {
            IReadOnlyList<Recommendation> list = Recommendation.ListFromJson(
                "[{\"id\":\"X\",\"type\":\"gameplay\",\"title\":\"T\",\"summary\":\"S\",\"confidence\":0.8,\"priority\":\"high\"," +
                "\"reason\":\"R\",\"evidence\":[\"e\"],\"action\":{\"kind\":\"suggestFeature\",\"featureId\":\"f\"," +
                "\"featurePayload\":{\"featureId\":\"f\",\"featureName\":\"F\",\"reasonCode\":\"r\"}},\"createdAt\":86400.5," +
                "\"expiresAt\":-1}]");
            Recommendation r = list[0];
            Assert.That(r.Action.Kind, Is.EqualTo("suggestFeature"));
            Assert.That(r.Action.FeaturePayload.FeatureName, Is.EqualTo("F"));
            Assert.That(r.Action.ComponentId, Is.Null);
            Assert.That(r.Action.DifficultyDelta, Is.Null);
            Assert.That(r.CreatedAt, Is.EqualTo(new DateTime(2001, 1, 2, 0, 0, 0, 500, DateTimeKind.Utc)));
            Assert.That(r.ExpiresAt, Is.EqualTo(new DateTime(2000, 12, 31, 23, 59, 59, DateTimeKind.Utc)));
        }

        // Compact, so that what goes back can be compared as text: members
        // the binding does not read, nulls, integers and doubles included.
        [TestCase("{\"id\":\"X\",\"type\":\"ui\",\"title\":\"T \\\"q\\\" é\\n\",\"summary\":\"S\",\"confidence\":0.738," +
            "\"priority\":\"high\",\"reason\":\"R\",\"evidence\":[\"play: 6\"],\"action\":{\"kind\":\"reorderComponent\"," +
            "\"componentId\":\"play\",\"screenName\":\"Home\",\"targetPosition\":0},\"createdAt\":817208307.25}")]
        [TestCase("{\"id\":\"X\",\"type\":\"gameplay\",\"title\":\"T\",\"summary\":\"S\",\"confidence\":1,\"priority\":\"low\"," +
            "\"reason\":\"R\",\"evidence\":[],\"action\":{\"kind\":\"adjustDifficulty\",\"difficultyDelta\":-1.5}," +
            "\"createdAt\":-0.25,\"expiresAt\":null,\"future\":{\"a\":[1,2.5,null,true,{}],\"b\":\"\\u0001\"}}")]
        public void RecommendationGoesBackAsItCame(string json)
        {
            Recommendation r = Recommendation.ListFromJson("[" + json + "]")[0];
            Assert.That(r.ToJson(), Is.EqualTo(json));
        }

        // The runtime may print a double with more digits than it came with;
        // the number itself must not change.
        [TestCase(817208307.3281224)]
        [TestCase(0.1)]
        public void RecommendationKeepsItsNumbersExactly(double number)
        {
            string json = "[{\"id\":\"X\",\"type\":\"ui\",\"title\":\"T\",\"summary\":\"S\",\"confidence\":" +
                number.ToString("R", CultureInfo.InvariantCulture) + ",\"priority\":\"low\",\"reason\":\"R\",\"evidence\":[]," +
                "\"action\":{\"kind\":\"custom\",\"customPayload\":{}},\"createdAt\":0}]";
            Dictionary<string, object> back = (Dictionary<string, object>)JsonReader.Parse(Recommendation.ListFromJson(json)[0].ToJson());
            Assert.That(back["confidence"], Is.TypeOf<double>());
            Assert.That((double)back["confidence"], Is.EqualTo(number));
            Assert.That(back["createdAt"], Is.TypeOf<long>());
        }

        private const string History = "[{\"key\":\"navigation/suggestShortcut/home|level\",\"type\":\"navigation\"," +
            "\"title\":\"T\",\"action\":{\"kind\":\"suggestShortcut\",\"destinationScreen\":\"Level\"},\"shown\":2," +
            "\"applied\":1,\"dismissed\":1,\"firstRecordedAt\":0,\"lastRecordedAt\":86400.5,\"firstAppliedAt\":60," +
            "\"dismissedAt\":[30],\"effect\":{\"effect\":\"improved\",\"signal\":\"destinationSteps\",\"sessionsBefore\":6," +
            "\"sessionsAfter\":5,\"before\":3.2,\"after\":0.8,\"reachedBefore\":0.5,\"reachedAfter\":1},\"isHeldBack\":true}]";

        [Test]
        public void OutcomeHistoryDecodesItsCountsDatesAndEffect()
        {
            OutcomeHistory h = OutcomeHistory.ListFromJson(History)[0];
            Assert.That(h.Key, Is.EqualTo("navigation/suggestShortcut/home|level"));
            Assert.That(h.Action.DestinationScreen, Is.EqualTo("Level"));
            Assert.That(new[] { h.Shown, h.Applied, h.Dismissed }, Is.EqualTo(new[] { 2L, 1L, 1L }));
            Assert.That(h.LastRecordedAt, Is.EqualTo(new DateTime(2001, 1, 2, 0, 0, 0, 500, DateTimeKind.Utc)));
            Assert.That(h.FirstAppliedAt, Is.EqualTo(Dates.Reference.AddMinutes(1)));
            Assert.That(h.DismissedAt, Is.EqualTo(new[] { Dates.Reference.AddSeconds(30) }));
            Assert.That(h.IsHeldBack, Is.True);
            Assert.That(new object[] { h.Effect.Effect, h.Effect.Signal, h.Effect.SessionsBefore, h.Effect.SessionsAfter },
                Is.EqualTo(new object[] { "improved", "destinationSteps", 6L, 5L }));
            Assert.That(new[] { h.Effect.Before, h.Effect.After, h.Effect.ReachedBefore, h.Effect.ReachedAfter },
                Is.EqualTo(new double?[] { 3.2, 0.8, 0.5, 1.0 }));

            // Not applied, never dismissed, no effect; a member it does not know is passed over.
            OutcomeHistory bare = OutcomeHistory.ListFromJson(History.Replace(",\"firstAppliedAt\":60", "")
                .Replace("\"dismissedAt\":[30],\"effect\":", "\"dismissedAt\":[],\"later\":"))[0];
            Assert.That(bare.FirstAppliedAt, Is.Null);
            Assert.That(bare.DismissedAt, Is.Empty);
            Assert.That(bare.Effect, Is.Null);
        }

        [TestCase("\"isHeldBack\":true", "\"isHeldBack\":1", "outcomes[0].isHeldBack: expected true or false")]
        [TestCase(",\"isHeldBack\":true", "", "outcomes[0].isHeldBack: missing")]
        [TestCase("\"sessionsBefore\":6", "\"sessionsBefore\":1.5", "outcomes[0].effect.sessionsBefore: expected an integer")]
        [TestCase("\"dismissedAt\":[30]", "\"dismissedAt\":[30,null]", "outcomes[0].dismissedAt[1]: expected a number")]
        [TestCase("\"dismissedAt\":[30]", "\"dismissedAt\":[1e300]", "outcomes[0].dismissedAt[0]: date out of range")]
        [TestCase("\"dismissedAt\":[30]", "\"dismissedAt\":30", "outcomes[0].dismissedAt: expected an array")]
        public void OutcomeHistoryOfTheWrongShapeNamesThePath(string good, string bad, string message)
        {
            string json = History.Replace(good, bad);
            StringAssert.Contains(message, Assert.Throws<QevrInvalidJsonException>(() => OutcomeHistory.ListFromJson(json)).Message);
        }

        public static readonly object[] TaggedMetadata =
        {
            new object[] { "s", "a\"b\\\n\u0001é😀", "{\"s\":{\"type\":\"string\",\"value\":\"a\\\"b\\\\\\n\\u0001é😀\"}}" },
            new object[] { "i", 42, "{\"i\":{\"type\":\"int\",\"value\":42}}" },
            new object[] { "l", long.MinValue, "{\"l\":{\"type\":\"int\",\"value\":-9223372036854775808}}" },
            new object[] { "d", 0.875, "{\"d\":{\"type\":\"double\",\"value\":0.875}}" },
            new object[] { "f", 0.5f, "{\"f\":{\"type\":\"double\",\"value\":0.5}}" },
            new object[] { "d", 1e300, "{\"d\":{\"type\":\"double\",\"value\":1E+300}}" },
            new object[] { "b", false, "{\"b\":{\"type\":\"bool\",\"value\":false}}" },
            new object[] { "t", new DateTime(2001, 1, 2, 0, 0, 1, 250, DateTimeKind.Utc), "{\"t\":{\"type\":\"date\",\"value\":86401.25}}" },
            new object[] { "t", new DateTime(2000, 12, 31, 0, 0, 0, DateTimeKind.Utc), "{\"t\":{\"type\":\"date\",\"value\":-86400}}" },
            new object[] { "k\"ey", 1, "{\"k\\\"ey\":{\"type\":\"int\",\"value\":1}}" },
        };

        // Under a culture whose decimal separator is a comma: JSON needs dots.
        [TestCaseSource("TaggedMetadata")]
        public void MetadataIsWrittenInTheTaggedForm(string key, object value, string expected)
        {
            CultureInfo culture = Thread.CurrentThread.CurrentCulture;
            Thread.CurrentThread.CurrentCulture = new CultureInfo("de-DE");
            try
            {
                byte[] bytes = Qevr.Metadata(new Dictionary<string, object> { { key, value } });
                Assert.That(bytes[bytes.Length - 1], Is.EqualTo(0), "NUL-terminated");
                Assert.That(Encoding.UTF8.GetString(bytes, 0, bytes.Length - 1), Is.EqualTo(expected));
            }
            finally
            {
                Thread.CurrentThread.CurrentCulture = culture;
            }
        }

        [Test]
        public void LocalDatesAreSentAsUtc()
        {
            DateTime utc = new DateTime(2024, 5, 1, 12, 0, 0, DateTimeKind.Utc);
            Assert.That(Encoding.UTF8.GetString(Qevr.Metadata(new Dictionary<string, object> { { "t", utc.ToLocalTime() } })),
                Is.EqualTo(Encoding.UTF8.GetString(Qevr.Metadata(new Dictionary<string, object> { { "t", utc } }))));
        }
    }
}
