"""The binding end to end against the library the build made (QEVR_LIBRARY),
and the errors it must raise."""

import logging
import os
import subprocess
import sys

import pytest

import qevr


@pytest.fixture(scope="module")
def data_dir(tmp_path_factory):
    directory = tmp_path_factory.mktemp("qevr-python")
    qevr.set_data_directory(directory)
    yield directory
    if qevr.lifecycle_state() in ("running", "paused"):
        qevr.shutdown()
    qevr.wait_for_background_idle()
    qevr.set_data_directory(None)


@pytest.fixture
def freed(monkeypatch):
    """Counts the strings the binding hands back to the library."""
    count = {"n": 0}
    original = qevr._free_string

    def counting(pointer):
        count["n"] += 1
        original(pointer)

    monkeypatch.setattr(qevr, "_free_string", counting)
    return count


def test_end_to_end(data_dir, freed):
    qevr.clear_memory()
    qevr.start({"appId": "com.example.python"})
    assert qevr.lifecycle_state() == "running"
    assert qevr.screen_view("Home")
    for _ in range(6):
        assert qevr.button_tap("play", "Play", {"slot": 2, "ranked": True})
    assert qevr.navigation("Home", "Level 1")
    assert qevr.gesture("swipe")
    assert qevr.track("level_completed", {"score": 1200, "accuracy": 0.875, "mode": "ranked"})
    assert not qevr.track("   "), "a blank name is a refusal, not an error"
    qevr.configure_privacy({"allowCustomEvents": False})
    assert qevr.privacy_options()["allowCustomEvents"] is False
    assert not qevr.track("jump")
    qevr.configure_privacy(None)
    assert qevr.screen_disappear("Level 1")
    qevr.shutdown()
    assert qevr.wait_for_background_idle()

    stats = qevr.memory_stats()
    assert stats["hasUserGraph"] and stats["eventChunkCount"] >= 1
    snapshot = qevr.memory_snapshot()
    assert snapshot["totalSessions"] == 1
    assert snapshot["frequentlyVisitedScreens"]["Home"] >= 1
    assert "level_completed" in snapshot["frequentCustomEvents"]

    qevr.start()
    assert set(qevr.summarize_behavior()) >= {"summary", "dominantScreens", "confidence"}
    assert 0.0 <= qevr.analyze_intent("game")["confidence"] <= 1.0
    assert qevr.detect_frustration()["level"] in ("none", "low", "medium", "high")
    assert "skillLevel" in qevr.analyze_skill({"custom": {"_0": "travel"}})
    # Only an appId was given: the defaults recommend, among others about
    # the button the earlier session used most.
    recommendations = qevr.generate("game")
    assert "play" in [r["action"].get("componentId") for r in recommendations]
    assert qevr.generate("game", {"maxRecommendations": 0}) == []
    qevr.shutdown()
    assert qevr.generate("game") == []
    # privacy_options, stats, snapshot, four analyses, three generates.
    assert freed["n"] == 10


def test_cancelled_token_stops_blocking_calls(data_dir, freed):
    with qevr.CancelToken() as token:
        token.cancel()
        for call in (qevr.memory_stats, qevr.memory_snapshot):
            with pytest.raises(qevr.CancelledError) as raised:
                call(cancel=token)
            assert raised.value.code == 6 and raised.value.message
    assert freed["n"] == 0, "nothing handed out, nothing to free"


@pytest.mark.parametrize(
    "call, error, code, text",
    [
        (qevr.pause, qevr.LifecycleStateError, 4, "pause"),
        (qevr.resume, qevr.LifecycleStateError, 4, "resume"),
        (qevr.shutdown, qevr.LifecycleStateError, 4, "shut down"),
        (lambda: qevr.start({"appId": " "}), qevr.InvalidArgumentError, 1, "appId"),
        (lambda: qevr.start({"appID": "x"}), qevr.InvalidJSONError, 2, "unknown key"),
        (lambda: qevr.start("{"), qevr.InvalidJSONError, 2, "configuration_json"),
        (lambda: qevr.configure_memory({"maxDiskUsageMB": "big"}), qevr.InvalidJSONError, 2,
         "maxDiskUsageMB"),
        (lambda: qevr.configure_privacy([]), qevr.InvalidJSONError, 2, "object"),
        (lambda: qevr.track(b"\xc3\x28"), qevr.InvalidUTF8Error, 3, "UTF-8"),
        (lambda: qevr.screen_view("Home", b'{"k":{"type":"string","value":"\xed\xa0\x80"}}'),
         qevr.InvalidUTF8Error, 3, "metadata_json"),
        (lambda: qevr.track(None), qevr.InvalidArgumentError, 1, "must not be NULL"),
        (lambda: qevr.gesture("wave"), qevr.InvalidArgumentError, 1, "gesture_type"),
        (lambda: qevr.analyze_intent("sports"), qevr.InvalidJSONError, 2, "domain_json"),
        (lambda: qevr.generate(None, {"maxRecommendations": 1}), qevr.InvalidArgumentError, 1,
         "domain_json"),
    ],
)
def test_refusals_raise_the_matching_error(data_dir, call, error, code, text):
    before = (qevr.lifecycle_state(), qevr.privacy_options(), qevr.memory_options())
    with pytest.raises(error) as raised:
        call()
    assert isinstance(raised.value, qevr.Error)
    assert raised.value.code == code
    assert text in raised.value.message
    assert (qevr.lifecycle_state(), qevr.privacy_options(), qevr.memory_options()) == before


def test_missing_library_is_an_import_error(tmp_path):
    environment = dict(os.environ, QEVR_LIBRARY=str(tmp_path / "libqevr-missing.so"))
    result = subprocess.run([sys.executable, "-c", "import qevr"], env=environment,
                            capture_output=True, text=True)
    assert result.returncode != 0
    assert "ImportError: qevr: cannot load" in result.stderr


def test_continuity_carries_sessions_across_runs(data_dir):
    qevr.clear_memory()
    assert qevr.continuity() is False
    qevr.set_continuity(True)
    try:
        for run in range(3):
            qevr.start({"appId": "com.example.python"})
            assert qevr.screen_view(f"Run {run}")
            qevr.shutdown()
            assert qevr.wait_for_background_idle()
        assert qevr.memory_snapshot()["totalSessions"] == 3
    finally:
        qevr.set_continuity(False)


def _start_and_stop(configuration):
    qevr.start(configuration)
    qevr.shutdown()


@pytest.mark.parametrize(
    "action, level, message",
    [
        (qevr.clear_memory, logging.INFO,
         "QEVMemory/Diagnostics: Cleared local QEVMemory storage"),
        (lambda: qevr.screen_view("Home"), logging.ERROR,
         "QEVObserver/Events: Screen view ignored because QEVObserver is not running"),
        (lambda: _start_and_stop({"appId": "com.example.python",
                                  "isFallbackRecommendationsEnabled": False}), logging.INFO,
         "com.qevr.recommendations/Lifecycle: "
         "Recommendations unavailable by configuration; module inactive"),
    ],
)
def test_log_lines_reach_logging_under_qevr(data_dir, caplog, action, level, message):
    caplog.set_level(logging.DEBUG, logger="qevr")
    action()
    assert qevr.wait_for_background_idle()
    lines = [(r.name, r.levelno, r.getMessage()) for r in caplog.records]
    assert ("qevr", level, message) in lines
    subsystem, category = message.split(": ", 1)[0].split("/")
    assert any(r.qevr_subsystem == subsystem and r.qevr_category == category
               for r in caplog.records)


def test_use_logging_false_hands_lines_back_to_the_platform(data_dir, caplog):
    caplog.set_level(logging.DEBUG, logger="qevr")
    qevr.use_logging(False)
    try:
        qevr.clear_memory()
        assert [r for r in caplog.records if r.name == "qevr"] == []
    finally:
        qevr.use_logging(True)
    qevr.clear_memory()
    assert [r.getMessage() for r in caplog.records if r.name == "qevr"] == [
        "QEVMemory/Diagnostics: Cleared local QEVMemory storage"]


def test_exit_with_background_work_still_logging(tmp_path):
    """The interpreter may exit while the library's threads still log (the
    pruning run a start queues): they must not call into a finalised
    Python."""
    script = (
        "import qevr, sys\n"
        f"qevr.set_data_directory({str(tmp_path)!r})\n"
        "for run in range(3):\n"
        "    qevr.start({'appId': 'com.example.python'})\n"
        "    qevr.screen_view('Home')\n"
        "    qevr.shutdown()\n"
    )
    result = subprocess.run([sys.executable, "-c", script], env=dict(os.environ),
                            capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
