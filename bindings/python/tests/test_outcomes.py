"""Outcome learning through the binding: what the host did with a generated
recommendation goes back in, and comes out again as that advice's history."""

import json

import pytest

import qevr


@pytest.fixture
def store(tmp_path):
    """A fresh data directory, and the process-wide switches put back."""
    qevr.set_data_directory(tmp_path)
    yield tmp_path
    if qevr.lifecycle_state() in ("running", "paused"):
        qevr.shutdown()
    qevr.wait_for_background_idle()
    qevr.set_outcome_learning(False)
    qevr.set_data_directory(None)


def _running_with_advice():
    """One session that taps "play" often, then a running second one, and
    the advice to move "play" up that the first taught."""
    qevr.start({"appId": "com.example.python"})
    assert qevr.screen_view("Home")
    for _ in range(6):
        assert qevr.button_tap("play", "Play")
    qevr.shutdown()
    assert qevr.wait_for_background_idle()
    qevr.start({"appId": "com.example.python"})
    for recommendation in qevr.generate("game"):
        action = recommendation["action"]
        if action["kind"] == "reorderComponent" and action.get("componentId") == "play":
            return recommendation
    pytest.fail("no advice about the play button")


@pytest.mark.parametrize("outcome", ["shown", "applied", "dismissed"])
def test_recording_is_refused_while_learning_is_off(store, outcome):
    recommendation = _running_with_advice()
    assert qevr.outcome_learning() is False
    with pytest.raises(qevr.LifecycleStateError) as raised:
        qevr.record_outcome(recommendation, outcome)
    assert raised.value.code == 4
    assert "outcome learning is off" in raised.value.message
    assert qevr.outcomes() == []


@pytest.mark.parametrize(
    "recorded, shown, applied, dismissed, held_back, as_text",
    [
        (["shown"], 1, 0, 0, False, False),
        (["shown", "applied"], 1, 1, 0, True, False),
        (["applied"], 0, 1, 0, True, True),
        (["dismissed"], 0, 0, 1, False, False),
        (["shown", "dismissed", "dismissed"], 1, 0, 2, True, True),
    ],
)
def test_recorded_outcomes_come_back_as_one_history(store, recorded, shown, applied, dismissed,
                                                    held_back, as_text):
    recommendation = _running_with_advice()
    qevr.set_outcome_learning(True)
    assert qevr.outcome_learning() is True
    argument = json.dumps(recommendation) if as_text else recommendation
    for outcome in recorded:
        qevr.record_outcome(argument, outcome)

    [history] = qevr.outcomes()
    assert history["key"].startswith("ui/reorderComponent/play")
    assert history["type"] == recommendation["type"]
    assert history["title"] == recommendation["title"]
    assert history["action"] == recommendation["action"]
    assert (history["shown"], history["applied"], history["dismissed"]) == (
        shown, applied, dismissed)
    assert len(history["dismissedAt"]) == dismissed
    assert history["firstRecordedAt"] <= history["lastRecordedAt"]
    assert ("firstAppliedAt" in history) == (applied > 0)
    if applied:
        # Two sessions in all: too few on either side to tell a change.
        assert history["effect"]["effect"] == "tooEarly"
        assert history["effect"]["signal"] == "repeatedInteractions"
    else:
        assert "effect" not in history
    assert history["isHeldBack"] is held_back

    # Held back advice stays out of the next generation; other advice stays.
    actions = [r["action"] for r in qevr.generate("game")]
    assert (recommendation["action"] in actions) is not held_back


@pytest.mark.parametrize(
    "recommendation, outcome, error, code, text",
    [
        (None, "applyed", qevr.InvalidArgumentError, 1, 'outcome must be "shown"'),
        (None, "Applied", qevr.InvalidArgumentError, 1, 'outcome must be "shown"'),
        (None, None, qevr.InvalidArgumentError, 1, "outcome must not be NULL"),
        (None, b"appl\xc3\x28", qevr.InvalidUTF8Error, 3, "UTF-8"),
        ("{", "shown", qevr.InvalidJSONError, 2, "recommendation_json"),
        ({}, "shown", qevr.InvalidJSONError, 2, "recommendation_json"),
    ],
)
def test_bad_arguments_are_errors_and_record_nothing(store, recommendation, outcome, error, code,
                                                      text):
    generated = _running_with_advice()
    qevr.set_outcome_learning(True)
    with pytest.raises(error) as raised:
        qevr.record_outcome(generated if recommendation is None else recommendation, outcome)
    assert raised.value.code == code
    assert text in raised.value.message
    assert qevr.outcomes() == []
    # The refusal left the switch and the advice as they were.
    assert qevr.outcome_learning() is True
    qevr.record_outcome(generated, "shown")
    assert [h["shown"] for h in qevr.outcomes()] == [1]
