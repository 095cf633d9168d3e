/* A C host built against an installed QEVR with pkg-config: it records a
   few events through the C API and prints what QEVR suggests. */
#include <QEVR/qevr.h>
#include <stdio.h>
#include <stdlib.h>

static int check(qevr_status status, const char* what) {
  if (status == QEVR_OK) return 1;
  fprintf(stderr, "%s: %s (%s)\n", what, qevr_last_error(), qevr_status_name(status));
  return 0;
}

int main(int argc, char** argv) {
  if (argc > 1 && !check(qevr_set_data_directory(argv[1]), "data directory")) return EXIT_FAILURE;
  if (!check(qevr_start("{\"appId\":\"com.example.consumer-c\"}"), "start")) return EXIT_FAILURE;

  int dispatched = 0;
  check(qevr_screen_view("Home", NULL, &dispatched), "screen view");
  check(qevr_track("level_failed", "{\"attempt\":{\"type\":\"int\",\"value\":1}}", &dispatched),
        "track");

  char* json = NULL;
  int ok = check(qevr_analyze_skill("{\"game\":{}}", NULL, &json), "skill");
  if (ok) printf("skill: %s\n", json);
  qevr_string_free(json);
  json = NULL;
  ok = ok && check(qevr_generate("{\"game\":{}}", NULL, NULL, &json), "generate");
  if (ok) printf("recommendations: %s\n", json);
  qevr_string_free(json);

  ok = check(qevr_shutdown(), "shutdown") && ok;
  return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
