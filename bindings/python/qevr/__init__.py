"""QEVR from Python, through the library's C API (``<QEVR/qevr.h>``).

Pure ctypes: no compiled extension. The shared library is found through the
``QEVR_LIBRARY`` environment variable (a path), else
``ctypes.util.find_library("qevr")``.

Records are plain dicts and lists in the records' JSON forms. Option records
(configuration, privacy, memory options, policy) may leave keys out: those
keep their defaults. Metadata takes plain Python values (str, int, float,
bool, datetime), or values already in the tagged form
``{"type": "int", "value": 3}``. Dates in results are seconds since
2001-01-01T00:00:00Z; ``to_datetime`` converts one.

Every failure raises a subclass of ``qevr.Error`` that carries the C status
in ``.code`` and the library's text in ``.message``.

Outcome learning (``set_outcome_learning``, off by default) lets the host
report what it did with a recommendation (``record_outcome``) and read each
advice's history back (``outcomes``); an effect there is a change observed
in this user's sessions, not proof of cause.

Blocking calls (memory, analyses, generate) release the GIL while they run,
as every ctypes call does, and accept a ``CancelToken`` that another thread
may cancel.

The library's log lines go to the standard ``logging`` module, under the
logger ``"qevr"``, from the moment the module is imported (``use_logging``
turns that off and on). Each record's message is ``"<subsystem>/<category>:
<text>"``; the record also carries ``qevr_subsystem`` and ``qevr_category``.
Levels: debug is DEBUG, info is INFO, the library's "default" level (its
warnings, such as a lifecycle step it ignored) is WARNING, error is ERROR and
fault is CRITICAL. Lines come from whichever thread logs, background threads
included. No line holds host data. The logger has a ``NullHandler``, as a
library's should: configure ``logging`` to see the lines.
"""

import atexit
import ctypes
import ctypes.util
import datetime
import json
import logging
import os

__all__ = [
    "Error", "InvalidArgumentError", "InvalidJSONError", "InvalidUTF8Error",
    "LifecycleStateError", "UnavailableError", "CancelledError", "InputOutputError",
    "OutOfMemoryError", "InternalError", "CancelToken", "version", "set_data_directory",
    "wait_for_background_idle", "start", "pause", "resume", "shutdown", "lifecycle_state",
    "privacy_options", "configure_privacy", "track", "screen_view", "screen_disappear",
    "navigation", "button_tap", "gesture", "memory_options", "configure_memory",
    "memory_stats", "clear_memory", "memory_snapshot", "summarize_behavior", "analyze_intent",
    "detect_frustration", "analyze_skill", "generate", "to_datetime", "set_continuity",
    "continuity", "set_outcome_learning", "outcome_learning", "record_outcome", "outcomes",
    "use_logging",
]


class Error(Exception):
    """A call the library refused; ``code`` is its qevr_status."""

    def __init__(self, code, message):
        super().__init__(message)
        self.code = code
        self.message = message


class InvalidArgumentError(Error):
    """A missing value, an unknown gesture type, a blank appId."""


class InvalidJSONError(Error):
    """Text or a dict that is not the record asked for."""


class InvalidUTF8Error(Error):
    """Bytes given for a text that are not well-formed UTF-8."""


class LifecycleStateError(Error):
    """A lifecycle call the current state does not allow."""


class UnavailableError(Error):
    """A part of the system the call needs is not there."""


class CancelledError(Error):
    """The call's CancelToken was cancelled."""


class InputOutputError(Error):
    """The memory store could not be read or written, or a file is damaged."""


class OutOfMemoryError(Error):
    pass


class InternalError(Error):
    pass


# qevr_status values, as in qevr.h.
_ERRORS = {
    1: InvalidArgumentError,
    2: InvalidJSONError,
    3: InvalidUTF8Error,
    4: LifecycleStateError,
    5: UnavailableError,
    6: CancelledError,
    7: InputOutputError,
    8: OutOfMemoryError,
    9: InternalError,
}

_STATES = ("notStarted", "starting", "running", "paused", "shuttingDown", "shutdown")

_REFERENCE_DATE = datetime.datetime(2001, 1, 1, tzinfo=datetime.timezone.utc)


def _load():
    path = os.environ.get("QEVR_LIBRARY") or ctypes.util.find_library("qevr")
    if not path:
        raise ImportError(
            "qevr: cannot find libqevr; install QEVR or set QEVR_LIBRARY to the library's path")
    try:
        return ctypes.CDLL(path)
    except OSError as error:
        raise ImportError(f"qevr: cannot load {path}: {error}") from error


_lib = _load()

_c = ctypes.c_char_p
_out = ctypes.POINTER(ctypes.c_void_p)
_int_out = ctypes.POINTER(ctypes.c_int)
_token = ctypes.c_void_p
# qevr_log_callback: subsystem, category, level, text, user_data.
_LOG_CALLBACK = ctypes.CFUNCTYPE(None, _c, _c, ctypes.c_int, _c, ctypes.c_void_p)
_SIGNATURES = {
    "qevr_version": ([], _c),
    "qevr_last_error": ([], _c),
    "qevr_string_free": ([ctypes.c_void_p], None),
    "qevr_set_log_callback": ([_LOG_CALLBACK, ctypes.c_void_p], ctypes.c_int),
    "qevr_cancel_token_new": ([_out], ctypes.c_int),
    "qevr_cancel_token_cancel": ([_token], ctypes.c_int),
    "qevr_cancel_token_free": ([_token], None),
    "qevr_set_data_directory": ([_c], ctypes.c_int),
    "qevr_wait_for_background_idle": ([ctypes.c_longlong, _int_out], ctypes.c_int),
    "qevr_start": ([_c], ctypes.c_int),
    "qevr_pause": ([], ctypes.c_int),
    "qevr_resume": ([], ctypes.c_int),
    "qevr_shutdown": ([], ctypes.c_int),
    "qevr_get_lifecycle_state": ([], ctypes.c_int),
    "qevr_observer_privacy_options": ([_out], ctypes.c_int),
    "qevr_observer_configure": ([_c], ctypes.c_int),
    "qevr_track": ([_c, _c, _int_out], ctypes.c_int),
    "qevr_screen_view": ([_c, _c, _int_out], ctypes.c_int),
    "qevr_screen_disappear": ([_c, _c, _int_out], ctypes.c_int),
    "qevr_navigation": ([_c, _c, _c, _int_out], ctypes.c_int),
    "qevr_button_tap": ([_c, _c, _c, _int_out], ctypes.c_int),
    "qevr_gesture": ([_c, _c, _c, _int_out], ctypes.c_int),
    "qevr_memory_options": ([_out], ctypes.c_int),
    "qevr_memory_configure": ([_c], ctypes.c_int),
    "qevr_memory_set_continuity": ([ctypes.c_int], ctypes.c_int),
    "qevr_memory_continuity": ([_int_out], ctypes.c_int),
    "qevr_memory_stats": ([_token, _out], ctypes.c_int),
    "qevr_memory_clear": ([_token], ctypes.c_int),
    "qevr_memory_snapshot": ([_token, _out], ctypes.c_int),
    "qevr_summarize_behavior": ([_token, _out], ctypes.c_int),
    "qevr_analyze_intent": ([_c, _token, _out], ctypes.c_int),
    "qevr_detect_frustration": ([_token, _out], ctypes.c_int),
    "qevr_analyze_skill": ([_c, _token, _out], ctypes.c_int),
    "qevr_generate": ([_c, _c, _token, _out], ctypes.c_int),
    "qevr_set_outcome_learning": ([ctypes.c_int], ctypes.c_int),
    "qevr_outcome_learning": ([_int_out], ctypes.c_int),
    "qevr_record_outcome": ([_c, _c], ctypes.c_int),
    "qevr_outcomes": ([_out], ctypes.c_int),
}
for _name, (_args, _result) in _SIGNATURES.items():
    _function = getattr(_lib, _name)
    _function.argtypes = _args
    _function.restype = _result


_logger = logging.getLogger("qevr")
_logger.addHandler(logging.NullHandler())

# qevr_log_level values, as in qevr.h.
_LOG_LEVELS = {
    0: logging.DEBUG,
    1: logging.INFO,
    2: logging.WARNING,
    3: logging.ERROR,
    4: logging.CRITICAL,
}


def _forward_line(subsystem, category, level, text, _user_data):
    python_level = _LOG_LEVELS.get(level, logging.WARNING)
    if not _logger.isEnabledFor(python_level):
        return
    try:
        subsystem = subsystem.decode("utf-8", "replace")
        category = category.decode("utf-8", "replace")
        _logger.log(python_level, "%s/%s: %s", subsystem, category,
                    text.decode("utf-8", "replace"),
                    extra={"qevr_subsystem": subsystem, "qevr_category": category})
    except Exception:  # an exception cannot cross back into C
        pass


# The one ctypes callback object, referenced here for the life of the module:
# the library may call it from any thread for as long as it is registered,
# and a collected callback would be a call into freed memory.
_log_callback = _LOG_CALLBACK(_forward_line)
_no_log_callback = _LOG_CALLBACK()  # NULL


def use_logging(enabled=True):
    """Routes the library's log lines to ``logging`` (the default since
    import) or, with False, back to the platform's log (syslog on Linux).
    When it returns, no line is still on its way to ``logging``."""
    _check(_lib.qevr_set_log_callback(_log_callback if enabled else _no_log_callback, None))


def _free_string(pointer):
    """Releases a string the library handed out (kept apart so that tests
    can count the releases)."""
    _lib.qevr_string_free(pointer)


def _check(status):
    if status != 0:
        text = (_lib.qevr_last_error() or b"").decode("utf-8", "replace")
        raise _ERRORS.get(status, Error)(status, text)


def _text(value):
    """A text argument: str is encoded as UTF-8; bytes go as they are, so
    that the library's own check decides on them; None stays NULL."""
    if value is None or isinstance(value, bytes):
        return value
    if isinstance(value, str):
        try:
            return value.encode("utf-8")
        except UnicodeEncodeError as error:
            raise InvalidUTF8Error(3, f"not encodable as UTF-8: {error}") from error
    raise TypeError(f"expected str, bytes or None, got {type(value).__name__}")


def _json(value):
    """A record argument: dicts and lists as JSON, str or bytes as JSON
    text, None as NULL."""
    if value is None or isinstance(value, (str, bytes)):
        return _text(value)
    return json.dumps(value, ensure_ascii=False, separators=(",", ":")).encode("utf-8")


def _domain(domain):
    """A domain: None, a case name ("game"), or the keyed form."""
    if isinstance(domain, str) and not domain.lstrip().startswith("{"):
        return _json({domain: {}})
    return _json(domain)


def _tagged(value):
    if isinstance(value, dict) and set(value) == {"type", "value"}:
        return value
    if isinstance(value, bool):
        return {"type": "bool", "value": value}
    if isinstance(value, int):
        return {"type": "int", "value": value}
    if isinstance(value, float):
        return {"type": "double", "value": value}
    if isinstance(value, str):
        return {"type": "string", "value": value}
    if isinstance(value, datetime.datetime):
        if value.tzinfo is None:
            raise InvalidArgumentError(1, "metadata dates need a time zone")
        return {"type": "date", "value": (value - _REFERENCE_DATE).total_seconds()}
    raise TypeError(f"metadata value of type {type(value).__name__}")


def _metadata(metadata):
    if metadata is None or isinstance(metadata, (str, bytes)):
        return _text(metadata)
    return _json({key: _tagged(value) for key, value in metadata.items()})


def _token_of(cancel):
    return None if cancel is None else cancel._handle


def _take(function, *args):
    """Calls `function` with an out-string as its last argument and returns
    the parsed JSON, freeing the library's string in every case."""
    out = ctypes.c_void_p()
    status = function(*args, ctypes.byref(out))
    try:
        _check(status)
        return json.loads(ctypes.string_at(out.value).decode("utf-8"))
    finally:
        if out.value:
            _free_string(out.value)


def _observe(function, *args):
    dispatched = ctypes.c_int(0)
    _check(function(*args, ctypes.byref(dispatched)))
    return dispatched.value == 1


class CancelToken:
    """Lets one thread abandon another's blocking call. Close it (or use it
    as a context manager) once no call is using it."""

    def __init__(self):
        handle = ctypes.c_void_p()
        _check(_lib.qevr_cancel_token_new(ctypes.byref(handle)))
        self._handle = handle.value

    def cancel(self):
        _check(_lib.qevr_cancel_token_cancel(self._handle))

    def close(self):
        if self._handle:
            _lib.qevr_cancel_token_free(self._handle)
            self._handle = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        self.close()


def to_datetime(seconds):
    """A result's date (seconds since 2001) as an aware datetime."""
    return _REFERENCE_DATE + datetime.timedelta(seconds=seconds)


def version():
    return _lib.qevr_version().decode("ascii")


def set_data_directory(path):
    """Memory keeps its files below `path`/QEVR/Memory; None restores the
    platform's directory. Set it before start()."""
    _check(_lib.qevr_set_data_directory(_text(None if path is None else os.fspath(path))))


def wait_for_background_idle(timeout=60.0):
    """True once background work (saves started by shutdown) is done."""
    idle = ctypes.c_int(0)
    _check(_lib.qevr_wait_for_background_idle(int(timeout * 1000), ctypes.byref(idle)))
    return idle.value == 1


def start(configuration=None):
    """Starts the system. Keys the configuration leaves out take the
    library's defaults, under which ``{"appId": "com.example.app"}`` alone
    gives recommendations (background processing and the built-in engines
    on, AI services off)."""
    _check(_lib.qevr_start(_json(configuration)))


def pause():
    _check(_lib.qevr_pause())


def resume():
    _check(_lib.qevr_resume())


def shutdown():
    _check(_lib.qevr_shutdown())


def lifecycle_state():
    """"notStarted", "starting", "running", "paused", "shuttingDown" or
    "shutdown"."""
    return _STATES[_lib.qevr_get_lifecycle_state()]


def privacy_options():
    return _take(_lib.qevr_observer_privacy_options)


def configure_privacy(options=None):
    _check(_lib.qevr_observer_configure(_json(options)))


def track(name, metadata=None):
    return _observe(_lib.qevr_track, _text(name), _metadata(metadata))


def screen_view(screen_name, metadata=None):
    return _observe(_lib.qevr_screen_view, _text(screen_name), _metadata(metadata))


def screen_disappear(screen_name, metadata=None):
    return _observe(_lib.qevr_screen_disappear, _text(screen_name), _metadata(metadata))


def navigation(from_screen, to_screen, metadata=None):
    return _observe(_lib.qevr_navigation, _text(from_screen), _text(to_screen),
                    _metadata(metadata))


def button_tap(component_id, title=None, metadata=None):
    return _observe(_lib.qevr_button_tap, _text(component_id), _text(title), _metadata(metadata))


def gesture(gesture_type, component_id=None, metadata=None):
    return _observe(_lib.qevr_gesture, _text(gesture_type), _text(component_id),
                    _metadata(metadata))


def memory_options():
    return _take(_lib.qevr_memory_options)


def configure_memory(options=None):
    _check(_lib.qevr_memory_configure(_json(options)))


def set_continuity(enabled):
    """Memory across app runs (off by default); read at each start."""
    _check(_lib.qevr_memory_set_continuity(1 if enabled else 0))


def continuity():
    enabled = ctypes.c_int(0)
    _check(_lib.qevr_memory_continuity(ctypes.byref(enabled)))
    return bool(enabled.value)


def memory_stats(cancel=None):
    return _take(_lib.qevr_memory_stats, _token_of(cancel))


def clear_memory(cancel=None):
    _check(_lib.qevr_memory_clear(_token_of(cancel)))


def memory_snapshot(cancel=None):
    return _take(_lib.qevr_memory_snapshot, _token_of(cancel))


def summarize_behavior(cancel=None):
    return _take(_lib.qevr_summarize_behavior, _token_of(cancel))


def analyze_intent(domain=None, cancel=None):
    return _take(_lib.qevr_analyze_intent, _domain(domain), _token_of(cancel))


def detect_frustration(cancel=None):
    return _take(_lib.qevr_detect_frustration, _token_of(cancel))


def analyze_skill(domain=None, cancel=None):
    return _take(_lib.qevr_analyze_skill, _domain(domain), _token_of(cancel))


def generate(domain=None, policy=None, cancel=None):
    """Ranked recommendations (a list of dicts); [] while not running."""
    return _take(_lib.qevr_generate, _domain(domain), _json(policy), _token_of(cancel))


def set_outcome_learning(enabled):
    """Outcome learning (off by default, process-wide). While it is on,
    generate leaves out advice dismissed twice in the last 30 days, and
    applied advice unless its effect is "worse"."""
    _check(_lib.qevr_set_outcome_learning(1 if enabled else 0))


def outcome_learning():
    enabled = ctypes.c_int(0)
    _check(_lib.qevr_outcome_learning(ctypes.byref(enabled)))
    return bool(enabled.value)


def record_outcome(recommendation, outcome):
    """Records what the host did with `recommendation`, one element of
    generate's list as it came back (a dict, or its JSON text): "shown",
    "applied" or "dismissed". Raises LifecycleStateError (the library's
    state status) while outcome learning is off. Blocks for one small file
    write."""
    _check(_lib.qevr_record_outcome(_json(recommendation), _text(outcome)))


def outcomes():
    """Every advice with recorded outcomes, in the order first recorded: a
    list of dicts with "key", "type", "title", "action", the "shown",
    "applied" and "dismissed" counts, their dates, "isHeldBack" and, once
    applied and where the action has a figure, "effect". An effect is a
    change observed in this user's sessions, not proof that the advice
    caused it. Readable while learning is off."""
    return _take(_lib.qevr_outcomes)


use_logging(True)
# Background threads of the library outlive the interpreter: they must not
# call into Python once it is being torn down. Handing the lines back to the
# platform waits for any line still on its way to Python.
atexit.register(use_logging, False)
