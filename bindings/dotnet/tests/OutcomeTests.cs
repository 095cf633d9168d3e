using System;
using System.Collections.Generic;
using System.Linq;
using NUnit.Framework;

namespace QEVR.Tests
{
    // Outcome learning end to end: what the host did with a generated
    // recommendation goes back in and comes out as that advice's history.
    [TestFixture]
    public class OutcomeTests : StoreFixture
    {
        // One session that taps "play" often, then a running second one, and
        // the advice to move "play" up that the first taught.
        private static Recommendation RunningWithAdvice()
        {
            Session(() =>
            {
                Assert.That(Qevr.ScreenView("Home"), Is.True);
                for (int i = 0; i < 6; i++) Assert.That(Qevr.ButtonTap("play", "Play"), Is.True);
            });
            Qevr.Start(App());
            return AdviceAboutPlay(Qevr.Generate(Domain.Game));
        }

        private static Recommendation AdviceAboutPlay(IEnumerable<Recommendation> recommendations)
        {
            return recommendations.FirstOrDefault(r => r.Action.Kind == "reorderComponent" && r.Action.ComponentId == "play");
        }

        [TestCase(Outcome.Shown)]
        [TestCase(Outcome.Applied)]
        [TestCase(Outcome.Dismissed)]
        public void RecordingIsRefusedWhileLearningIsOff(Outcome outcome)
        {
            Recommendation advice = RunningWithAdvice();
            Assert.That(advice, Is.Not.Null, "no advice about the play button");
            Assert.That(Qevr.GetOutcomeLearning(), Is.False);
            QevrStateException error = Assert.Throws<QevrStateException>(() => Qevr.RecordOutcome(advice, outcome));
            Assert.That(error.Code, Is.EqualTo(QevrStatus.State));
            StringAssert.Contains("outcome learning is off", error.Message);
            Assert.That(Qevr.GetOutcomes(), Is.Empty);
        }

        public static readonly object[] Sequences =
        {
            new object[] { new[] { Outcome.Shown }, 1L, 0L, 0L, false, false },
            new object[] { new[] { Outcome.Shown, Outcome.Applied }, 1L, 1L, 0L, true, false },
            new object[] { new[] { Outcome.Applied }, 0L, 1L, 0L, true, true },
            new object[] { new[] { Outcome.Dismissed }, 0L, 0L, 1L, false, true },
            new object[] { new[] { Outcome.Shown, Outcome.Dismissed, Outcome.Dismissed }, 1L, 0L, 2L, true, false },
        };

        [TestCaseSource("Sequences")]
        public void RecordedOutcomesComeBackAsOneHistory(Outcome[] recorded, long shown, long applied, long dismissed,
            bool heldBack, bool viaTasks)
        {
            Recommendation advice = RunningWithAdvice();
            Assert.That(advice, Is.Not.Null, "no advice about the play button");
            Qevr.SetOutcomeLearning(true);
            Assert.That(Qevr.GetOutcomeLearning(), Is.True);
            foreach (Outcome outcome in recorded)
            {
                if (viaTasks) Qevr.RecordOutcomeAsync(advice, outcome).Wait();
                else Qevr.RecordOutcome(advice, outcome);
            }

            IReadOnlyList<OutcomeHistory> histories = viaTasks ? Qevr.GetOutcomesAsync().Result : Qevr.GetOutcomes();
            Assert.That(histories.Count, Is.EqualTo(1));
            OutcomeHistory history = histories[0];
            StringAssert.StartsWith("ui/reorderComponent/play", history.Key);
            Assert.That(history.Type, Is.EqualTo(advice.Type));
            Assert.That(history.Title, Is.EqualTo(advice.Title));
            Assert.That(history.Action.TargetPosition, Is.EqualTo(advice.Action.TargetPosition));
            Assert.That(new[] { history.Shown, history.Applied, history.Dismissed }, Is.EqualTo(new[] { shown, applied, dismissed }));
            Assert.That(history.DismissedAt.Count, Is.EqualTo(dismissed));
            AssertRecent(history.FirstRecordedAt, "firstRecordedAt");
            Assert.That(history.LastRecordedAt, Is.GreaterThanOrEqualTo(history.FirstRecordedAt));
            Assert.That(history.FirstAppliedAt.HasValue, Is.EqualTo(applied > 0));
            if (applied > 0)
            {
                // Two sessions in all: too few on either side to tell a change.
                Assert.That(history.Effect, Is.Not.Null);
                Assert.That(history.Effect.Effect, Is.EqualTo("tooEarly"));
                Assert.That(history.Effect.Signal, Is.EqualTo("repeatedInteractions"));
                Assert.That(history.Effect.ReachedBefore, Is.Null, "only for destination steps");
            }
            else
            {
                Assert.That(history.Effect, Is.Null);
            }
            Assert.That(history.IsHeldBack, Is.EqualTo(heldBack));
            // Held back advice stays out of the next generation; other advice stays.
            Assert.That(AdviceAboutPlay(Qevr.Generate(Domain.Game)) != null, Is.EqualTo(!heldBack), "generated again");
        }

        // A recommendation the library cannot read: the binding sends members
        // back as they came, so a priority it does not know reaches it.
        private static Recommendation Unreadable(Recommendation advice)
        {
            return Recommendation.ListFromJson("[{\"id\":\"X\",\"type\":\"ui\",\"title\":\"T\",\"summary\":\"S\"," +
                "\"confidence\":0.5,\"priority\":\"urgent\",\"reason\":\"R\",\"evidence\":[],\"action\":{\"kind\":\"custom\"," +
                "\"customPayload\":{}},\"createdAt\":0}]")[0];
        }

        public static readonly object[] Refusals =
        {
            new object[] { (Func<Recommendation, Recommendation>)(r => r), (Outcome)3, typeof(QevrInvalidArgumentException),
                QevrStatus.InvalidArgument, "outcome 3 is not an Outcome" },
            new object[] { (Func<Recommendation, Recommendation>)(r => r), (Outcome)(-1), typeof(QevrInvalidArgumentException),
                QevrStatus.InvalidArgument, "outcome -1" },
            new object[] { (Func<Recommendation, Recommendation>)(r => null), Outcome.Applied, typeof(QevrInvalidArgumentException),
                QevrStatus.InvalidArgument, "recommendation_json must not be NULL" },
            new object[] { (Func<Recommendation, Recommendation>)Unreadable, Outcome.Applied, typeof(QevrInvalidJsonException),
                QevrStatus.InvalidJson, "recommendation_json" },
        };

        [TestCaseSource("Refusals")]
        public void BadArgumentsAreRefusedAndRecordNothing(Func<Recommendation, Recommendation> pick, Outcome outcome, Type type,
            QevrStatus code, string text)
        {
            Recommendation advice = RunningWithAdvice();
            Assert.That(advice, Is.Not.Null, "no advice about the play button");
            Qevr.SetOutcomeLearning(true);
            QevrException error = (QevrException)Assert.Throws(type, () => Qevr.RecordOutcome(pick(advice), outcome));
            Assert.That(error.Code, Is.EqualTo(code));
            StringAssert.Contains(text, error.Message);
            Assert.That(Qevr.GetOutcomes(), Is.Empty);
            Assert.That(Qevr.GetOutcomeLearning(), Is.True, "the refusal left the switch on");
            Qevr.RecordOutcome(advice, Outcome.Shown);
            Assert.That(Qevr.GetOutcomes().Select(h => h.Shown), Is.EqualTo(new[] { 1L }));
        }
    }
}
