/* What QEVR costs a C host: starts it over a data directory, records a
   number of events as a short play session would, waits for the background
   saves, and prints on one line the time qevr_start took on this thread,
   the resident memory it added (after, and at its peak), and the CPU time
   of the whole process (all threads) per event.

     footprint_probe DATA_DIR EVENTS */
#include <QEVR/qevr.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

/* A field of /proc/self/status in kB, or -1. */
static long statusKilobytes(const char* field) {
  FILE* status = fopen("/proc/self/status", "r");
  if (!status) return -1;
  char line[256];
  long value = -1;
  const size_t length = strlen(field);
  while (fgets(line, sizeof line, status)) {
    if (strncmp(line, field, length) == 0 && line[length] == ':') {
      value = strtol(line + length + 1, NULL, 10);
      break;
    }
  }
  fclose(status);
  return value;
}

static double seconds(struct timespec t) {
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static double cpuSeconds(void) {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (double)usage.ru_utime.tv_sec + (double)usage.ru_utime.tv_usec / 1e6 +
         (double)usage.ru_stime.tv_sec + (double)usage.ru_stime.tv_usec / 1e6;
}

static int check(qevr_status status, const char* what) {
  if (status == QEVR_OK) return 1;
  fprintf(stderr, "footprint_probe: %s: %s\n", what, qevr_last_error());
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: footprint_probe DATA_DIR EVENTS\n");
    return 2;
  }
  const long events = strtol(argv[2], NULL, 10);
  if (!check(qevr_set_data_directory(argv[1]), "data directory")) return 1;
  /* The library's own one-time set-up (its loading, ICU's first use) is not
     what a start costs, so a version call comes first. */
  (void)qevr_version();

  const long before = statusKilobytes("VmRSS");
  const double cpuBefore = cpuSeconds();
  struct timespec t0, t1;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  if (!check(qevr_start("{\"appId\":\"com.example.footprint\"}"), "start")) return 1;
  clock_gettime(CLOCK_MONOTONIC, &t1);

  static const char* const screens[] = {"Home", "Level", "Shop", "Settings"};
  int dispatched = 0;
  for (long i = 0; i < events; ++i) {
    const char* screen = screens[(i / 25) % 4];
    switch (i % 5) {
      case 0:
        qevr_screen_view(screen, NULL, &dispatched);
        break;
      case 1:
        qevr_button_tap("play", "Play", NULL, &dispatched);
        break;
      case 2:
        qevr_gesture("swipe", "board", NULL, &dispatched);
        break;
      case 3:
        qevr_track("level_failed", "{\"attempt\":{\"type\":\"int\",\"value\":2}}", &dispatched);
        break;
      default:
        qevr_screen_disappear(screen, NULL, &dispatched);
        break;
    }
  }
  int idle = 0;
  if (!check(qevr_wait_for_background_idle(600000, &idle), "wait") || !idle) return 1;
  const double cpu = cpuSeconds() - cpuBefore;
  const long after = statusKilobytes("VmRSS");
  const long peak = statusKilobytes("VmHWM");
  printf("start_ms=%.3f rss_added_kb=%ld peak_added_kb=%ld cpu_us_per_event=%.2f\n",
         (seconds(t1) - seconds(t0)) * 1e3, after - before, peak - before,
         events > 0 ? cpu * 1e6 / (double)events : 0.0);
  return check(qevr_shutdown(), "shutdown") ? 0 : 1;
}
