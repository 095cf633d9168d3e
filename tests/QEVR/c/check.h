/* A minimal assertion helper for the C tests: each failed check prints its
 * place and keeps going, and the program's exit status says whether any
 * failed. */
#ifndef QEVR_TESTS_C_CHECK_H
#define QEVR_TESTS_C_CHECK_H

#include <QEVR/qevr.h>

#include <stdio.h>
#include <string.h>

static int check_failures = 0;
static int check_count = 0;

static int check_report(int ok, const char* file, int line, const char* what, const char* context) {
  ++check_count;
  if (!ok) {
    ++check_failures;
    fprintf(stderr, "%s:%d: check failed: %s [%s] (last error: \"%s\")\n", file, line, what,
            context ? context : "", qevr_last_error());
  }
  return ok;
}

/* CHECK(condition, context): context names the table row, or NULL. */
#define CHECK(cond, ctx) check_report((cond) ? 1 : 0, __FILE__, __LINE__, #cond, (ctx))

/* The call's status must be `expected`; on a mismatch both names print. */
#define CHECK_STATUS(call, expected, ctx)                                            \
  do {                                                                               \
    qevr_status check_got_ = (call);                                                 \
    if (!check_report(check_got_ == (expected), __FILE__, __LINE__, #call, (ctx))) { \
      fprintf(stderr, "    got %s, expected %s\n", qevr_status_name(check_got_),     \
              qevr_status_name(expected));                                           \
    }                                                                                \
  } while (0)

#define CHECK_CONTAINS(text, part, ctx) \
  CHECK((text) != NULL && strstr((text), (part)) != NULL, (ctx))

static int check_summary(const char* program) {
  if (check_failures) {
    fprintf(stderr, "%s: %d of %d checks failed\n", program, check_failures, check_count);
    return 1;
  }
  printf("%s: all %d checks passed\n", program, check_count);
  return 0;
}

#endif /* QEVR_TESTS_C_CHECK_H */
