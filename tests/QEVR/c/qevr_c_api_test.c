/* The C API driven from C: one life of the system end to end, then tables
 * of calls it must refuse, each checked for its code, a non-empty error
 * text, and a system left as it was. */
#define _XOPEN_SOURCE 700

#include "check.h"

#include <QEVR/qevr.h>

#include <ftw.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* ---- What a refused call must leave alone ---- */

typedef struct world {
  qevr_lifecycle_state state;
  char* privacy;
  char* memory;
} world;

static world world_capture(void) {
  world w = {qevr_get_lifecycle_state(), NULL, NULL};
  CHECK_STATUS(qevr_observer_privacy_options(&w.privacy), QEVR_OK, "capture privacy");
  CHECK_STATUS(qevr_memory_options(&w.memory), QEVR_OK, "capture memory options");
  return w;
}

static int world_same(const world* a, const world* b) {
  return a->state == b->state && a->privacy && b->privacy && strcmp(a->privacy, b->privacy) == 0 &&
         a->memory && b->memory && strcmp(a->memory, b->memory) == 0;
}

static void world_free(world* w) {
  qevr_string_free(w->privacy);
  qevr_string_free(w->memory);
}

/* The refused call's error text, kept before the checks below make calls
 * of their own. */
static char refused_text[1024];

/* After a refused call: the code, a text, and nothing changed. */
static void check_refused(qevr_status got, qevr_status expected, const world* before,
                          const char* label) {
  CHECK_STATUS(got, expected, label);
  snprintf(refused_text, sizeof refused_text, "%s", qevr_last_error());
  CHECK(refused_text[0] != '\0', label);
  world after = world_capture();
  CHECK(world_same(before, &after), label);
  world_free(&after);
}

/* ---- Calls with one text argument under test ----
 *
 * Each wrapper passes `text` in one position and valid values elsewhere. A
 * refused call must not report a dispatched event nor hand out a string. */

static int dispatched;
static char out_sentinel;

static qevr_status with_out(qevr_status status, char** out_ptr) {
  char* out = *out_ptr;
  if (status == QEVR_OK) {
    CHECK(out != NULL && out != &out_sentinel, "out set on success");
    qevr_string_free(out);
  } else {
    CHECK(out == NULL, "out cleared on failure");
  }
  return status;
}

static qevr_status with_dispatch(qevr_status status) {
  if (status != QEVR_OK) CHECK(dispatched == 0, "no dispatch on failure");
  return status;
}

static qevr_status call_start(const char* t) {
  return qevr_start(t);
}
static qevr_status call_data_directory(const char* t) {
  return qevr_set_data_directory(t);
}
static qevr_status call_observer_configure(const char* t) {
  return qevr_observer_configure(t);
}
static qevr_status call_memory_configure(const char* t) {
  return qevr_memory_configure(t);
}
static qevr_status call_track_name(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_track(t, NULL, &dispatched));
}
static qevr_status call_track_metadata(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_track("level_completed", t, &dispatched));
}
static qevr_status call_screen_view(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_screen_view(t, NULL, &dispatched));
}
static qevr_status call_screen_disappear(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_screen_disappear(t, NULL, &dispatched));
}
static qevr_status call_navigation_from(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_navigation(t, "Shop", NULL, &dispatched));
}
static qevr_status call_navigation_to(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_navigation("Home", t, NULL, &dispatched));
}
static qevr_status call_button_component(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_button_tap(t, "Play", NULL, &dispatched));
}
static qevr_status call_button_title(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_button_tap("play", t, NULL, &dispatched));
}
static qevr_status call_gesture_type(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_gesture(t, NULL, NULL, &dispatched));
}
static qevr_status call_gesture_component(const char* t) {
  dispatched = 7;
  return with_dispatch(qevr_gesture("tap", t, NULL, &dispatched));
}
static qevr_status call_intent_domain(const char* t) {
  char* out = &out_sentinel;
  return with_out(qevr_analyze_intent(t, NULL, &out), &out);
}
static qevr_status call_skill_domain(const char* t) {
  char* out = &out_sentinel;
  return with_out(qevr_analyze_skill(t, NULL, &out), &out);
}
static qevr_status call_generate_domain(const char* t) {
  char* out = &out_sentinel;
  return with_out(qevr_generate(t, NULL, NULL, &out), &out);
}
static qevr_status call_generate_policy(const char* t) {
  char* out = &out_sentinel;
  return with_out(qevr_generate("{\"game\":{}}", t, NULL, &out), &out);
}
static qevr_status call_generate_policy_no_domain(const char* t) {
  char* out = &out_sentinel;
  return with_out(qevr_generate(NULL, t, NULL, &out), &out);
}

typedef qevr_status (*text_call)(const char* text);

static const struct {
  const char* label;
  text_call call;
} text_calls[] = {
    {"start configuration", call_start},
    {"data directory", call_data_directory},
    {"observer configure", call_observer_configure},
    {"memory configure", call_memory_configure},
    {"track name", call_track_name},
    {"track metadata", call_track_metadata},
    {"screen view name", call_screen_view},
    {"screen disappear name", call_screen_disappear},
    {"navigation from", call_navigation_from},
    {"navigation to", call_navigation_to},
    {"button component", call_button_component},
    {"button title", call_button_title},
    {"gesture type", call_gesture_type},
    {"gesture component", call_gesture_component},
    {"intent domain", call_intent_domain},
    {"skill domain", call_skill_domain},
    {"generate domain", call_generate_domain},
    {"generate policy", call_generate_policy},
};

/* Every text argument refuses ill-formed UTF-8, also inside a JSON string
 * where the JSON reader would otherwise be the one to complain. */
static void test_invalid_utf8_is_refused_everywhere(void) {
  static const char* bad[] = {
      "\xC3\x28",                     /* a lead byte without its continuation */
      "{\"appId\":\"\xED\xA0\x80\"}", /* an encoded surrogate */
      "Shop\xF4\x90\x80\x80",         /* above U+10FFFF */
      "\xC0\xAF",                     /* an overlong "/" */
  };
  world before = world_capture();
  for (size_t c = 0; c < sizeof text_calls / sizeof text_calls[0]; ++c) {
    for (size_t b = 0; b < sizeof bad / sizeof bad[0]; ++b) {
      char label[96];
      snprintf(label, sizeof label, "%s, bad text %zu", text_calls[c].label, b);
      check_refused(text_calls[c].call(bad[b]), QEVR_ERROR_INVALID_UTF8, &before, label);
      CHECK_CONTAINS(refused_text, "UTF-8", label);
    }
  }
  world_free(&before);
}

/* Text that is not the record asked for. Run while the system runs: a bad
 * configuration must not even reach the state check. */
static void test_bad_json_and_values_are_refused(void) {
  static const struct {
    text_call call;
    const char* input;
    qevr_status expected;
    const char* error_part; /* a piece the error text must hold */
  } rows[] = {
      {call_start, "{", QEVR_ERROR_INVALID_JSON, "configuration_json"},
      {call_start, "[]", QEVR_ERROR_INVALID_JSON, "expected a JSON object"},
      {call_start, "{\"appid\":\"x\"}", QEVR_ERROR_INVALID_JSON, "unknown key \"appid\""},
      {call_start, "{\"appId\":5}", QEVR_ERROR_INVALID_JSON, "appId"},
      {call_start, "{\"environment\":{\"moon\":{}}}", QEVR_ERROR_INVALID_JSON, "environment"},
      {call_start, "{\"appId\":\"a\"} trailing", QEVR_ERROR_INVALID_JSON, "configuration_json"},
      {call_observer_configure, "{\"allowCustomEvents\":\"yes\"}", QEVR_ERROR_INVALID_JSON,
       "allowCustomEvents"},
      {call_observer_configure, "true", QEVR_ERROR_INVALID_JSON, "privacy_options_json"},
      {call_memory_configure, "{\"maxDiskUsageMB\":1.5}", QEVR_ERROR_INVALID_JSON,
       "maxDiskUsageMB"},
      {call_memory_configure, "{\"pruningEnabled\":null}", QEVR_ERROR_INVALID_JSON,
       "pruningEnabled"},
      {call_memory_configure, "", QEVR_ERROR_INVALID_JSON, "memory_options_json"},
      {call_track_metadata, "{\"k\":{\"type\":\"complex\",\"value\":1}}", QEVR_ERROR_INVALID_JSON,
       "metadata_json"},
      {call_track_metadata, "{\"k\":\"plain\"}", QEVR_ERROR_INVALID_JSON, "metadata_json"},
      {call_track_metadata, "[1]", QEVR_ERROR_INVALID_JSON, "metadata_json"},
      {call_track_metadata, "{\"n\":{\"type\":\"int\",\"value\":1.5}}", QEVR_ERROR_INVALID_JSON,
       "metadata_json"},
      {call_intent_domain, "{\"sports\":{}}", QEVR_ERROR_INVALID_JSON, "domain_json"},
      {call_skill_domain, "\"game\"", QEVR_ERROR_INVALID_JSON, "domain_json"},
      {call_generate_domain, "{\"custom\":{}}", QEVR_ERROR_INVALID_JSON, "domain_json"},
      {call_generate_policy, "{\"maxRecommendations\":\"ten\"}", QEVR_ERROR_INVALID_JSON,
       "maxRecommendations"},
      {call_generate_policy, "{\"protectedScreenNames\":[1]}", QEVR_ERROR_INVALID_JSON,
       "protectedScreenNames"},
      {call_generate_policy_no_domain, "{\"maxRecommendations\":1}", QEVR_ERROR_INVALID_ARGUMENT,
       "domain_json"},
      {call_gesture_type, "wave", QEVR_ERROR_INVALID_ARGUMENT, "gesture_type"},
      {call_data_directory, "", QEVR_ERROR_INVALID_ARGUMENT, "path"},
  };
  world before = world_capture();
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    char label[64];
    snprintf(label, sizeof label, "bad value row %zu", i);
    check_refused(rows[i].call(rows[i].input), rows[i].expected, &before, label);
    CHECK_CONTAINS(refused_text, rows[i].error_part, label);
  }
  world_free(&before);
}

/* ---- NULL where a value is required ---- */

static qevr_status null_track(void) {
  return qevr_track(NULL, NULL, &dispatched);
}
static qevr_status null_screen_view(void) {
  return qevr_screen_view(NULL, NULL, &dispatched);
}
static qevr_status null_screen_disappear(void) {
  return qevr_screen_disappear(NULL, NULL, &dispatched);
}
static qevr_status null_navigation_to(void) {
  return qevr_navigation("Home", NULL, NULL, &dispatched);
}
static qevr_status null_button(void) {
  return qevr_button_tap(NULL, NULL, NULL, &dispatched);
}
static qevr_status null_gesture(void) {
  return qevr_gesture(NULL, NULL, NULL, &dispatched);
}
static qevr_status null_privacy_out(void) {
  return qevr_observer_privacy_options(NULL);
}
static qevr_status null_memory_options_out(void) {
  return qevr_memory_options(NULL);
}
static qevr_status null_stats_out(void) {
  return qevr_memory_stats(NULL, NULL);
}
static qevr_status null_snapshot_out(void) {
  return qevr_memory_snapshot(NULL, NULL);
}
static qevr_status null_summary_out(void) {
  return qevr_summarize_behavior(NULL, NULL);
}
static qevr_status null_intent_out(void) {
  return qevr_analyze_intent(NULL, NULL, NULL);
}
static qevr_status null_frustration_out(void) {
  return qevr_detect_frustration(NULL, NULL);
}
static qevr_status null_skill_out(void) {
  return qevr_analyze_skill(NULL, NULL, NULL);
}
static qevr_status null_generate_out(void) {
  return qevr_generate(NULL, NULL, NULL, NULL);
}
static qevr_status null_token_out(void) {
  return qevr_cancel_token_new(NULL);
}
static qevr_status null_token_cancel(void) {
  return qevr_cancel_token_cancel(NULL);
}
static qevr_status null_idle_out(void) {
  return qevr_wait_for_background_idle(0, NULL);
}

static qevr_status null_continuity_out(void) {
  return qevr_memory_continuity(NULL);
}

static void test_null_arguments_are_refused(void) {
  static const struct {
    qevr_status (*call)(void);
    const char* parameter;
  } rows[] = {
      {null_track, "name"},
      {null_screen_view, "screen_name"},
      {null_screen_disappear, "screen_name"},
      {null_navigation_to, "to"},
      {null_button, "component_id"},
      {null_gesture, "gesture_type"},
      {null_privacy_out, "out_json"},
      {null_memory_options_out, "out_json"},
      {null_stats_out, "out_json"},
      {null_snapshot_out, "out_json"},
      {null_summary_out, "out_json"},
      {null_intent_out, "out_json"},
      {null_frustration_out, "out_json"},
      {null_skill_out, "out_json"},
      {null_generate_out, "out_json"},
      {null_token_out, "out_token"},
      {null_token_cancel, "token"},
      {null_idle_out, "out_idle"},
      {null_continuity_out, "out_enabled"},
  };
  world before = world_capture();
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    char label[64];
    snprintf(label, sizeof label, "NULL %s, row %zu", rows[i].parameter, i);
    dispatched = 0;
    check_refused(rows[i].call(), QEVR_ERROR_INVALID_ARGUMENT, &before, label);
    CHECK_CONTAINS(refused_text, rows[i].parameter, label);
    CHECK_CONTAINS(refused_text, "must not be NULL", label);
  }
  qevr_string_free(NULL);
  qevr_cancel_token_free(NULL);
  world_free(&before);
}

/* ---- Lifecycle ---- */

static qevr_status start_default(void) {
  return qevr_start(NULL);
}
static qevr_status start_blank_app_id(void) {
  return qevr_start("{\"appId\":\" \\n \"}");
}
static qevr_status start_configured(void) {
  return qevr_start("{\"appId\":\"com.example.c-test\",\"logLevel\":{\"warning\":{}}}");
}

static void test_lifecycle_transitions(void) {
  static const struct {
    const char* label;
    qevr_status (*call)(void);
    qevr_status expected;
    qevr_lifecycle_state after;
  } steps[] = {
      {"pause before start", qevr_pause, QEVR_ERROR_STATE, QEVR_STATE_NOT_STARTED},
      {"resume before start", qevr_resume, QEVR_ERROR_STATE, QEVR_STATE_NOT_STARTED},
      {"shutdown before start", qevr_shutdown, QEVR_ERROR_STATE, QEVR_STATE_NOT_STARTED},
      {"blank appId", start_blank_app_id, QEVR_ERROR_INVALID_ARGUMENT, QEVR_STATE_NOT_STARTED},
      {"start with defaults", start_default, QEVR_OK, QEVR_STATE_RUNNING},
      {"start while running", start_configured, QEVR_ERROR_STATE, QEVR_STATE_RUNNING},
      {"resume while running", qevr_resume, QEVR_ERROR_STATE, QEVR_STATE_RUNNING},
      {"pause", qevr_pause, QEVR_OK, QEVR_STATE_PAUSED},
      {"pause while paused", qevr_pause, QEVR_ERROR_STATE, QEVR_STATE_PAUSED},
      {"start while paused", start_default, QEVR_ERROR_STATE, QEVR_STATE_PAUSED},
      {"resume", qevr_resume, QEVR_OK, QEVR_STATE_RUNNING},
      {"shutdown", qevr_shutdown, QEVR_OK, QEVR_STATE_SHUTDOWN},
      {"shutdown again", qevr_shutdown, QEVR_ERROR_STATE, QEVR_STATE_SHUTDOWN},
      {"pause after shutdown", qevr_pause, QEVR_ERROR_STATE, QEVR_STATE_SHUTDOWN},
      {"restart", start_configured, QEVR_OK, QEVR_STATE_RUNNING},
      {"paused shutdown, 1", qevr_pause, QEVR_OK, QEVR_STATE_PAUSED},
      {"paused shutdown, 2", qevr_shutdown, QEVR_OK, QEVR_STATE_SHUTDOWN},
  };
  for (size_t i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
    world before = world_capture();
    const qevr_status got = steps[i].call();
    CHECK_STATUS(got, steps[i].expected, steps[i].label);
    CHECK(qevr_get_lifecycle_state() == steps[i].after, steps[i].label);
    if (got == QEVR_OK) {
      CHECK(qevr_last_error()[0] == '\0', steps[i].label);
    } else {
      check_refused(got, steps[i].expected, &before, steps[i].label);
    }
    world_free(&before);
  }
  CHECK(strcmp(qevr_lifecycle_state_name(QEVR_STATE_SHUTTING_DOWN), "shuttingDown") == 0, NULL);
  CHECK(strcmp(qevr_status_name(QEVR_ERROR_CANCELLED), "QEVR_ERROR_CANCELLED") == 0, NULL);
}

/* ---- End to end ---- */

/* `out = TAKE(call, label)`: the call must succeed and hand out a string.
 * The comma operator orders the call before the read of `out`. */
static void expect_ok(qevr_status status, const char* label) {
  CHECK_STATUS(status, QEVR_OK, label);
}
#define TAKE(call, label) (out = NULL, expect_ok((call), (label)), CHECK(out != NULL, (label)), out)

static void wait_idle(void) {
  int idle = 0;
  CHECK_STATUS(qevr_wait_for_background_idle(60000, &idle), QEVR_OK, "wait idle");
  CHECK(idle == 1, "background idle");
}

static void record_a_visit(void) {
  static const struct {
    const char* label;
    int kind; /* 0 screen view, 1 button, 2 navigation, 3 gesture, 4 track, 5 disappear */
    const char* a;
    const char* b;
    const char* metadata;
    int dispatched;
  } events[] = {
      {"screen view", 0, "Home", NULL, NULL, 1},
      {"button", 1, "play", "Play", "{\"slot\":{\"type\":\"int\",\"value\":2}}", 1},
      {"navigation", 2, "Home", "Level 1", NULL, 1},
      {"navigation, no from", 2, NULL, "Level 2", "{}", 1},
      {"gesture", 3, "swipe", NULL, NULL, 1},
      {"custom", 4, "level_completed", NULL,
       "{\"score\":{\"type\":\"int\",\"value\":1200},\"accuracy\":{\"type\":\"double\","
       "\"value\":0.875},\"ranked\":{\"type\":\"bool\",\"value\":true}}",
       1},
      {"blank custom name is a refusal, not an error", 4, "   ", NULL, NULL, 0},
      {"disappear", 5, "Level 2", NULL, NULL, 1},
  };
  for (size_t i = 0; i < sizeof events / sizeof events[0]; ++i) {
    int d = -1;
    qevr_status s = QEVR_ERROR_INTERNAL;
    switch (events[i].kind) {
      case 0:
        s = qevr_screen_view(events[i].a, events[i].metadata, &d);
        break;
      case 1:
        s = qevr_button_tap(events[i].a, events[i].b, events[i].metadata, &d);
        break;
      case 2:
        s = qevr_navigation(events[i].a, events[i].b, events[i].metadata, &d);
        break;
      case 3:
        s = qevr_gesture(events[i].a, events[i].b, events[i].metadata, &d);
        break;
      case 4:
        s = qevr_track(events[i].a, events[i].metadata, &d);
        break;
      default:
        s = qevr_screen_disappear(events[i].a, events[i].metadata, &d);
        break;
    }
    CHECK_STATUS(s, QEVR_OK, events[i].label);
    CHECK(d == events[i].dispatched, events[i].label);
  }
  /* out_dispatched is optional. */
  CHECK_STATUS(qevr_screen_view("Home", NULL, NULL), QEVR_OK, "NULL out_dispatched");
}

static void test_end_to_end(const char* data_dir) {
  char* out = NULL;
  int d = -1;
  CHECK_STATUS(qevr_set_data_directory(data_dir), QEVR_OK, "data dir");
  CHECK_STATUS(qevr_memory_clear(NULL), QEVR_OK, "clear before");
  CHECK_STATUS(qevr_start("{\"appId\":\"com.example.c-test\",\"environment\":{\"development\":{}},"
                          "\"isBackgroundProcessingEnabled\":true}"),
               QEVR_OK, "start");
  CHECK(qevr_get_lifecycle_state() == QEVR_STATE_RUNNING, "running");
  record_a_visit();
  /* Enough use of one component for a recommendation about it. */
  for (int i = 0; i < 5; ++i)
    CHECK_STATUS(qevr_button_tap("play", NULL, NULL, NULL), QEVR_OK, "play again");

  /* Privacy: a switched-off kind is refused until the defaults return. */
  CHECK_STATUS(qevr_observer_configure("{\"allowCustomEvents\":false}"), QEVR_OK, "privacy off");
  out = TAKE(qevr_observer_privacy_options(&out), "privacy read");
  CHECK_CONTAINS(out, "\"allowCustomEvents\":false", "privacy read");
  CHECK_CONTAINS(out, "\"allowScreenTracking\":true", "other keys keep defaults");
  qevr_string_free(out);
  CHECK_STATUS(qevr_track("jump", NULL, &d), QEVR_OK, "track while off");
  CHECK(d == 0, "custom events off");
  CHECK_STATUS(qevr_observer_configure(NULL), QEVR_OK, "privacy defaults");
  CHECK_STATUS(qevr_track("jump", NULL, &d), QEVR_OK, "track again");
  CHECK(d == 1, "custom events back on");

  /* Memory options: keys left out keep their defaults. */
  CHECK_STATUS(qevr_memory_configure("{\"maxSessionCount\":7}"), QEVR_OK, "memory configure");
  out = TAKE(qevr_memory_options(&out), "memory options");
  CHECK_CONTAINS(out, "\"maxSessionCount\":7", "memory options");
  CHECK_CONTAINS(out, "\"maxDiskUsageMB\":25", "memory options");
  qevr_string_free(out);
  CHECK_STATUS(qevr_memory_configure("{}"), QEVR_OK, "memory defaults");

  CHECK_STATUS(qevr_pause(), QEVR_OK, "pause");
  CHECK_STATUS(qevr_screen_view("Paused", NULL, &d), QEVR_OK, "event while paused");
  CHECK(d == 0, "nothing dispatched while paused");
  CHECK_STATUS(qevr_resume(), QEVR_OK, "resume");

  /* Shutdown closes the session; its files are written in the background. */
  CHECK_STATUS(qevr_shutdown(), QEVR_OK, "shutdown");
  wait_idle();
  out = TAKE(qevr_memory_stats(NULL, &out), "stats");
  CHECK_CONTAINS(out, "\"hasUserGraph\":true", "stats");
  CHECK(out && strstr(out, "\"eventChunkCount\":0") == NULL, "stats count chunks");
  qevr_string_free(out);
  out = TAKE(qevr_memory_snapshot(NULL, &out), "snapshot");
  CHECK_CONTAINS(out, "\"totalSessions\":1", "snapshot");
  CHECK_CONTAINS(out, "\"Home\"", "snapshot screens");
  CHECK_CONTAINS(out, "level_completed", "snapshot custom events");
  qevr_string_free(out);

  /* Only an appId: the defaults of every other key make recommendations. */
  CHECK_STATUS(qevr_start("{\"appId\":\"com.example.c-test\"}"), QEVR_OK, "restart");
  static const struct {
    const char* label;
    int which;
    const char* domain;
    const char* key;
  } analyses[] = {
      {"summary", 0, NULL, "\"dominantScreens\""},
      {"intent, game", 1, "{\"game\":{}}", "\"primaryIntent\""},
      {"intent, no domain", 1, NULL, "\"primaryIntent\""},
      {"frustration", 2, NULL, "\"level\""},
      {"skill, custom domain", 3, "{\"custom\":{\"_0\":\"travel\"}}", "\"skillLevel\""},
  };
  for (size_t i = 0; i < sizeof analyses / sizeof analyses[0]; ++i) {
    qevr_status s = QEVR_ERROR_INTERNAL;
    out = NULL;
    switch (analyses[i].which) {
      case 0:
        s = qevr_summarize_behavior(NULL, &out);
        break;
      case 1:
        s = qevr_analyze_intent(analyses[i].domain, NULL, &out);
        break;
      case 2:
        s = qevr_detect_frustration(NULL, &out);
        break;
      default:
        s = qevr_analyze_skill(analyses[i].domain, NULL, &out);
        break;
    }
    expect_ok(s, analyses[i].label);
    CHECK(out != NULL, analyses[i].label);
    CHECK_CONTAINS(out, analyses[i].key, analyses[i].label);
    CHECK_CONTAINS(out, "\"confidence\":", analyses[i].label);
    qevr_string_free(out);
  }

  out = TAKE(qevr_generate("{\"game\":{}}", NULL, NULL, &out), "generate");
  CHECK(out && out[0] == '[' && out[strlen(out) - 1] == ']', "generate gives an array");
  CHECK_CONTAINS(out, "\"componentId\":\"play\"", "the earlier session's play button");
  qevr_string_free(out);
  out = TAKE(qevr_generate("{\"game\":{}}", "{\"maxRecommendations\":0}", NULL, &out),
             "generate, none allowed");
  CHECK(out && strcmp(out, "[]") == 0, "maxRecommendations 0 gives none");
  qevr_string_free(out);
  out = TAKE(qevr_generate(NULL, "{}", NULL, &out), "generate, no domain");
  CHECK(out && out[0] == '[', "generate without a domain");
  qevr_string_free(out);

  /* A cancelled token stops blocking calls before they produce anything. */
  qevr_cancel_token* token = NULL;
  CHECK_STATUS(qevr_cancel_token_new(&token), QEVR_OK, "token");
  CHECK_STATUS(qevr_cancel_token_cancel(token), QEVR_OK, "cancel");
  out = &out_sentinel;
  CHECK_STATUS(qevr_memory_stats(token, &out), QEVR_ERROR_CANCELLED, "stats cancelled");
  CHECK(out == NULL, "no stats when cancelled");
  CHECK_STATUS(qevr_memory_snapshot(token, &out), QEVR_ERROR_CANCELLED, "snapshot cancelled");
  CHECK(qevr_last_error()[0] != '\0', "cancelled has a text");
  qevr_cancel_token_free(token);

  CHECK_STATUS(qevr_shutdown(), QEVR_OK, "final shutdown");
  wait_idle();
  out = TAKE(qevr_generate("{\"game\":{}}", NULL, NULL, &out), "generate, not running");
  CHECK(out && strcmp(out, "[]") == 0, "nothing while not running");
  qevr_string_free(out);
  CHECK_STATUS(qevr_memory_clear(NULL), QEVR_OK, "clear");
  out = TAKE(qevr_memory_stats(NULL, &out), "stats after clear");
  CHECK_CONTAINS(out, "\"eventChunkCount\":0", "cleared");
  qevr_string_free(out);
}

/* ---- Log callback ---- */

enum { kMaxLines = 512 };

typedef struct log_line {
  char subsystem[48];
  char category[32];
  qevr_log_level level;
  char text[128];
} log_line;

/* Lines arrive on any thread, background ones included. */
static struct {
  pthread_mutex_t lock;
  log_line lines[kMaxLines];
  int count;
  int foreign_user_data;
  int reentered;
} captured = {PTHREAD_MUTEX_INITIALIZER, {{{0}, {0}, QEVR_LOG_DEBUG, {0}}}, 0, 0, 0};

static void capture_line(const char* subsystem, const char* category, qevr_log_level level,
                         const char* text, void* user_data) {
  pthread_mutex_lock(&captured.lock);
  if (user_data != &captured) ++captured.foreign_user_data;
  if (captured.count < kMaxLines) {
    log_line* line = &captured.lines[captured.count];
    snprintf(line->subsystem, sizeof line->subsystem, "%s", subsystem);
    snprintf(line->category, sizeof line->category, "%s", category);
    line->level = level;
    snprintf(line->text, sizeof line->text, "%s", text);
  }
  ++captured.count;
  pthread_mutex_unlock(&captured.lock);
}

/* Calls back into QEVR, as the header allows: a call that succeeds and one
 * that fails, whose error the call that logged must replace. */
static void reentrant_line(const char* subsystem, const char* category, qevr_log_level level,
                           const char* text, void* user_data) {
  capture_line(subsystem, category, level, text, user_data);
  char* options = NULL;
  const int read = qevr_memory_options(&options) == QEVR_OK && options != NULL;
  qevr_string_free(options);
  const int refused = qevr_memory_configure("{\"notAKey\":1}") == QEVR_ERROR_INVALID_JSON;
  pthread_mutex_lock(&captured.lock);
  if (read && refused) ++captured.reentered;
  pthread_mutex_unlock(&captured.lock);
}

/* One of the counters of `captured`, read under its lock. */
static int captured_read(const int* counter) {
  pthread_mutex_lock(&captured.lock);
  const int value = *counter;
  pthread_mutex_unlock(&captured.lock);
  return value;
}

static int captured_count(void) {
  return captured_read(&captured.count);
}

/* Whether a line exactly like this one arrived since line `from`. */
static int captured_since(int from, const char* subsystem, const char* category,
                          qevr_log_level level, const char* text) {
  int found = 0;
  pthread_mutex_lock(&captured.lock);
  for (int i = from; i < captured.count && i < kMaxLines && !found; ++i) {
    const log_line* line = &captured.lines[i];
    found = strcmp(line->subsystem, subsystem) == 0 && strcmp(line->category, category) == 0 &&
            line->level == level && strcmp(line->text, text) == 0;
  }
  pthread_mutex_unlock(&captured.lock);
  return found;
}

static qevr_status log_clear(void) {
  return qevr_memory_clear(NULL);
}
static qevr_status log_start_without_recommendations(void) {
  qevr_status s =
      qevr_start("{\"appId\":\"com.example.c-test\",\"isFallbackRecommendationsEnabled\":false}");
  if (s == QEVR_OK) s = qevr_shutdown();
  return s;
}
static qevr_status log_start_with_defaults(void) {
  qevr_status s = qevr_start("{\"appId\":\"com.example.c-test\"}");
  if (s == QEVR_OK) s = qevr_shutdown();
  return s;
}
static qevr_status log_screen_view_while_stopped(void) {
  return qevr_screen_view("Home", NULL, NULL);
}

static void test_log_callback(void) {
  static const struct {
    const char* label;
    qevr_status (*call)(void);
    const char* subsystem;
    const char* category;
    qevr_log_level level;
    const char* text;
  } rows[] = {
      {"clear memory", log_clear, "QEVMemory", "Diagnostics", QEVR_LOG_INFO,
       "Cleared local QEVMemory storage"},
      {"recommendations off", log_start_without_recommendations, "com.qevr.recommendations",
       "Lifecycle", QEVR_LOG_INFO, "Recommendations unavailable by configuration; module inactive"},
      {"defaults", log_start_with_defaults, "com.qevr.recommendations", "Lifecycle", QEVR_LOG_INFO,
       "Recommendations module started"},
      {"observer not running", log_screen_view_while_stopped, "QEVObserver", "Events",
       QEVR_LOG_ERROR, "Screen view ignored because QEVObserver is not running"},
  };
  static const qevr_log_callback callbacks[] = {capture_line, reentrant_line};
  for (size_t c = 0; c < sizeof callbacks / sizeof callbacks[0]; ++c) {
    CHECK_STATUS(qevr_set_log_callback(callbacks[c], &captured), QEVR_OK, "install callback");
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
      const int from = captured_count();
      CHECK_STATUS(rows[i].call(), QEVR_OK, rows[i].label);
      /* A callback's own failed call does not become the caller's error. */
      CHECK(qevr_last_error()[0] == '\0', rows[i].label);
      CHECK(captured_since(from, rows[i].subsystem, rows[i].category, rows[i].level, rows[i].text),
            rows[i].label);
    }
  }
  wait_idle();
  CHECK(captured_read(&captured.reentered) > 0, "the callback called back into QEVR");

  /* NULL restores the platform's log: nothing reaches the old callback,
   * whatever runs in the background meanwhile. */
  CHECK_STATUS(qevr_set_log_callback(NULL, NULL), QEVR_OK, "restore the default");
  const int before = captured_count();
  CHECK_STATUS(log_start_with_defaults(), QEVR_OK, "a life without the callback");
  CHECK_STATUS(log_clear(), QEVR_OK, "clear without the callback");
  wait_idle();
  CHECK(captured_count() == before, "no line after NULL");
  CHECK(captured_read(&captured.foreign_user_data) == 0, "user_data reaches the callback");
  CHECK(captured_count() <= kMaxLines, "every line kept");
}

/* ---- Log queue ---- */

static void* wait_for_a_line(void* status) {
  char* line = NULL;
  *(qevr_status*)status = qevr_next_log_line(60000, &line);
  qevr_string_free(line);
  return NULL;
}

static void test_log_queue(void) {
  static const char kIgnored[] =
      "{\"subsystem\":\"QEVObserver\",\"category\":\"Events\",\"level\":\"error\",\"text\":"
      "\"Screen view ignored because QEVObserver is not running\",\"dropped\":%d}";
  char expected[256];
  char* out = &out_sentinel;
  wait_idle();
  CHECK_STATUS(qevr_next_log_line(0, &out), QEVR_ERROR_STATE, "no queue yet");
  CHECK(out == NULL, "no line without a queue");
  static const long long bad_capacities[] = {0, -1, 100001};
  for (size_t i = 0; i < sizeof bad_capacities / sizeof bad_capacities[0]; ++i)
    CHECK_STATUS(qevr_set_log_queue(bad_capacities[i]), QEVR_ERROR_INVALID_ARGUMENT, "capacity");

  /* The queue replaces the callback; a full queue drops its oldest lines
   * and says how many the next line taken follows. */
  CHECK_STATUS(qevr_set_log_callback(capture_line, &captured), QEVR_OK, "callback first");
  const int before = captured_count();
  CHECK_STATUS(qevr_set_log_queue(2), QEVR_OK, "queue of two");
  CHECK_STATUS(qevr_next_log_line(-1, &out), QEVR_ERROR_INVALID_ARGUMENT, "negative wait");
  CHECK_STATUS(qevr_next_log_line(0, NULL), QEVR_ERROR_INVALID_ARGUMENT, "NULL out_json");
  for (int i = 0; i < 5; ++i)
    log_screen_view_while_stopped();
  CHECK(captured_count() == before, "the callback gets nothing once the queue is in");
  static const int dropped[] = {3, 0};
  for (size_t i = 0; i < 2; ++i) {
    out = TAKE(qevr_next_log_line(1000, &out), "take a line");
    snprintf(expected, sizeof expected, kIgnored, dropped[i]);
    CHECK(out && strcmp(out, expected) == 0, out);
    qevr_string_free(out);
  }
  CHECK_STATUS(qevr_next_log_line(10, &out), QEVR_OK, "empty queue");
  CHECK(out == NULL, "no line in time");

  /* Installing a queue again keeps what is waiting. */
  log_screen_view_while_stopped();
  CHECK_STATUS(qevr_set_log_queue(100), QEVR_OK, "a larger queue");
  out = TAKE(qevr_next_log_line(0, &out), "the line kept");
  snprintf(expected, sizeof expected, kIgnored, 0);
  CHECK(out && strcmp(out, expected) == 0, out);
  qevr_string_free(out);

  /* An ended queue still hands out what it holds, then says it ended; a
   * host thread waiting on it wakes. */
  log_screen_view_while_stopped();
  CHECK_STATUS(qevr_set_log_callback(NULL, NULL), QEVR_OK, "end the queue");
  log_screen_view_while_stopped();
  out = TAKE(qevr_next_log_line(0, &out), "the line before the end");
  CHECK(out && strcmp(out, expected) == 0, out);
  qevr_string_free(out);
  CHECK_STATUS(qevr_next_log_line(0, &out), QEVR_ERROR_STATE, "nothing after the end");
  CHECK_STATUS(qevr_set_log_queue(100), QEVR_OK, "a new queue");
  pthread_t waiter;
  qevr_status waited = QEVR_ERROR_INTERNAL;
  const time_t started = time(NULL);
  CHECK(pthread_create(&waiter, NULL, wait_for_a_line, &waited) == 0, "waiter");
  nanosleep(&(struct timespec){0, 50 * 1000 * 1000}, NULL);
  CHECK_STATUS(qevr_set_log_callback(NULL, NULL), QEVR_OK, "end the queue");
  pthread_join(waiter, NULL);
  CHECK(waited == QEVR_ERROR_STATE, "the waiter learns the queue ended");
  CHECK(time(NULL) - started < 30, "the waiter woke before its time-out");
}

/* ---- Threads ----
 *
 * Each thread's refusals name a key of its own; the last error it reads
 * must be its own, whatever the other threads do meanwhile, and events it
 * reports concurrently must all be taken. */

enum { kThreads = 4, kRounds = 100 };

typedef struct thread_result {
  int index;
  int wrong_errors;
  int not_dispatched;
} thread_result;

/* POSIX threads, not C11 <threads.h>: ThreadSanitizer does not intercept
 * thrd_create. */
static void* hammer(void* argument) {
  thread_result* result = (thread_result*)argument;
  char json[64];
  char key[16];
  snprintf(key, sizeof key, "k%d\"", result->index);
  snprintf(json, sizeof json, "{\"k%d\":1}", result->index);
  for (int round = 0; round < kRounds; ++round) {
    int d = 0;
    if (qevr_memory_configure(json) != QEVR_ERROR_INVALID_JSON) ++result->wrong_errors;
    if (qevr_track("tick", NULL, &d) != QEVR_OK || d != 1) ++result->not_dispatched;
    /* The successful call cleared this thread's error; refuse again. */
    if (qevr_memory_configure(json) != QEVR_ERROR_INVALID_JSON) ++result->wrong_errors;
    if (strstr(qevr_last_error(), key) == NULL) ++result->wrong_errors;
  }
  return NULL;
}

static void test_threads_keep_their_own_errors(void) {
  pthread_t threads[kThreads];
  thread_result results[kThreads];
  CHECK_STATUS(qevr_start(NULL), QEVR_OK, "start for threads");
  for (int i = 0; i < kThreads; ++i) {
    results[i] = (thread_result){i, 0, 0};
    CHECK(pthread_create(&threads[i], NULL, hammer, &results[i]) == 0, "thread");
  }
  for (int i = 0; i < kThreads; ++i) {
    pthread_join(threads[i], NULL);
    CHECK(results[i].wrong_errors == 0, "each thread reads its own error");
    CHECK(results[i].not_dispatched == 0, "concurrent events all taken");
  }
  CHECK_STATUS(qevr_shutdown(), QEVR_OK, "shutdown after threads");
  wait_idle();
}

/* A host that moves the data directory between two lives of the system
 * gets the next life's memory in the new place, and the old one untouched. */
static void test_data_directory_moves_between_lives(const char* data_dir) {
  char moved[512];
  char* out = NULL;
  snprintf(moved, sizeof moved, "%s/moved", data_dir);
  CHECK(mkdir(moved, 0700) == 0, "mkdir moved");
  out = TAKE(qevr_memory_stats(NULL, &out), "stats before the move");
  char* before = out;

  CHECK_STATUS(qevr_set_data_directory(moved), QEVR_OK, "move");
  CHECK_STATUS(qevr_start(NULL), QEVR_OK, "start after the move");
  CHECK_STATUS(qevr_screen_view("Elsewhere", NULL, NULL), QEVR_OK, "event after the move");
  CHECK_STATUS(qevr_shutdown(), QEVR_OK, "shutdown after the move");
  wait_idle();
  out = TAKE(qevr_memory_snapshot(NULL, &out), "snapshot in the new place");
  CHECK_CONTAINS(out, "\"Elsewhere\"", "the event went to the new place");
  CHECK_CONTAINS(out, "\"totalSessions\":1", "one session in the new place");
  qevr_string_free(out);

  CHECK_STATUS(qevr_set_data_directory(data_dir), QEVR_OK, "move back");
  out = TAKE(qevr_memory_stats(NULL, &out), "stats after moving back");
  CHECK(strcmp(out, before) == 0, "the old place untouched");
  qevr_string_free(out);
  qevr_string_free(before);
}

/* Refused while off and for bad input; on, kept per advice. */
static void test_outcomes(void) {
  const char* advice =
      "{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\",\"type\":\"ui\",\"title\":\"Help\","
      "\"summary\":\"S\",\"confidence\":0.8,\"priority\":\"high\",\"reason\":\"r\","
      "\"evidence\":[],\"action\":{\"kind\":\"showHelp\",\"componentId\":\"Play\"},"
      "\"createdAt\":0}";
  char* out = NULL;
  CHECK_STATUS(qevr_record_outcome(advice, "applied"), QEVR_ERROR_STATE, "off");
  CHECK_STATUS(qevr_set_outcome_learning(1), QEVR_OK, "learning on");
  int on = 0;
  CHECK_STATUS(qevr_outcome_learning(&on), QEVR_OK, "learning read");
  CHECK(on == 1, "learning is on");
  CHECK_STATUS(qevr_record_outcome(advice, "Applied"), QEVR_ERROR_INVALID_ARGUMENT, "outcome");
  CHECK_STATUS(qevr_record_outcome("{}", "applied"), QEVR_ERROR_INVALID_JSON, "not advice");
  CHECK_STATUS(qevr_record_outcome(NULL, "applied"), QEVR_ERROR_INVALID_ARGUMENT, "no advice");
  for (int i = 0; i < 2; ++i)
    CHECK_STATUS(qevr_record_outcome(advice, "dismissed"), QEVR_OK, "dismissed");
  out = TAKE(qevr_outcomes(&out), "outcomes");
  CHECK_CONTAINS(out, "\"key\":\"ui\\/showHelp\\/play||\"", "kept per advice");
  CHECK_CONTAINS(out, "\"shown\":0,\"applied\":0,\"dismissed\":2", "counted");
  CHECK_CONTAINS(out, "\"isHeldBack\":true", "held back");
  qevr_string_free(out);
  CHECK_STATUS(qevr_set_outcome_learning(0), QEVR_OK, "learning off");
}

static int remove_entry(const char* path, const struct stat* info, int flag, struct FTW* ftw) {
  (void)info;
  (void)flag;
  (void)ftw;
  return remove(path);
}

int main(void) {
  char data_dir[] = "/tmp/qevr-c-api-XXXXXX";
  if (mkdtemp(data_dir) == NULL) {
    perror("mkdtemp");
    return 1;
  }
  CHECK(strcmp(qevr_version(), "") != 0, "version");

  /* Never the user's own data directory. */
  CHECK_STATUS(qevr_set_data_directory(data_dir), QEVR_OK, "data dir");
  test_lifecycle_transitions();
  CHECK_STATUS(qevr_start(NULL), QEVR_OK, "start for the refusal tables");
  test_invalid_utf8_is_refused_everywhere();
  test_bad_json_and_values_are_refused();
  test_null_arguments_are_refused();
  CHECK_STATUS(qevr_shutdown(), QEVR_OK, "shutdown after the refusal tables");
  wait_idle();
  test_end_to_end(data_dir);
  test_data_directory_moves_between_lives(data_dir);
  test_outcomes();
  test_log_callback();
  test_log_queue();
  test_threads_keep_their_own_errors();

  CHECK_STATUS(qevr_set_data_directory(NULL), QEVR_OK, "data dir reset");
  nftw(data_dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  return check_summary("qevr_c_api_test");
}
