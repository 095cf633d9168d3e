#include "QEVRLifecycleCoordinator.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using S = QEVRLifecycleState;

enum class Event { beginStarting, start, pause, resume, shutdown };

// Brings a coordinator to `state` through legal transitions only.
void driveTo(QEVRLifecycleCoordinator& c, S state) {
  switch (state) {
    case S::notStarted:
      return;
    case S::starting:
      c.beginStarting();
      return;
    case S::running:
      c.beginStarting();
      c.start();
      return;
    case S::paused:
      driveTo(c, S::running);
      c.pause();
      return;
    case S::shutdown:
      driveTo(c, S::running);
      c.shutdown();
      return;
    case S::shuttingDown:
      FAIL() << "shuttingDown is not observable between calls";
  }
}

struct TransitionCase {
  S from;
  Event event;
  bool applies;
  S to;
  const char* hook;  // the hook that runs, or ""
};

class LifecycleTransitionTest : public ::testing::TestWithParam<TransitionCase> {};

TEST_P(LifecycleTransitionTest, AppliesOnlyFromItsSourceStatesAndRunsItsHook) {
  const TransitionCase& tc = GetParam();
  QEVRLifecycleCoordinator c;
  driveTo(c, tc.from);
  std::vector<std::string> calls;
  std::vector<S> seen;
  QEVRLifecycleHooks hooks;
  hooks.onStart = [&] { calls.push_back("start"), seen.push_back(c.state()); };
  hooks.onPause = [&] { calls.push_back("pause"), seen.push_back(c.state()); };
  hooks.onResume = [&] { calls.push_back("resume"), seen.push_back(c.state()); };
  hooks.onShutdown = [&] { calls.push_back("shutdown"), seen.push_back(c.state()); };
  c.replaceHooks(hooks);

  bool applied = false;
  switch (tc.event) {
    case Event::beginStarting:
      applied = c.beginStarting();
      break;
    case Event::start:
      c.start();
      applied = !calls.empty();
      break;
    case Event::pause:
      applied = c.pause();
      break;
    case Event::resume:
      applied = c.resume();
      break;
    case Event::shutdown:
      applied = c.shutdown();
      break;
  }
  EXPECT_EQ(applied, tc.applies);
  EXPECT_EQ(c.state(), tc.to);
  if (std::string(tc.hook).empty()) {
    EXPECT_TRUE(calls.empty());
  } else {
    ASSERT_EQ(calls, std::vector<std::string>{tc.hook});
    // A hook always finds the new state already in force.
    EXPECT_EQ(seen.front(), tc.to);
  }
}

INSTANTIATE_TEST_SUITE_P(
    WholeTable, LifecycleTransitionTest,
    ::testing::Values(TransitionCase{S::notStarted, Event::beginStarting, true, S::starting, ""},
                      TransitionCase{S::shutdown, Event::beginStarting, true, S::starting, ""},
                      TransitionCase{S::starting, Event::beginStarting, false, S::starting, ""},
                      TransitionCase{S::running, Event::beginStarting, false, S::running, ""},
                      TransitionCase{S::paused, Event::beginStarting, false, S::paused, ""},
                      TransitionCase{S::starting, Event::start, true, S::running, "start"},
                      TransitionCase{S::notStarted, Event::start, false, S::notStarted, ""},
                      TransitionCase{S::running, Event::start, false, S::running, ""},
                      TransitionCase{S::paused, Event::start, false, S::paused, ""},
                      TransitionCase{S::shutdown, Event::start, false, S::shutdown, ""},
                      TransitionCase{S::running, Event::pause, true, S::paused, "pause"},
                      TransitionCase{S::notStarted, Event::pause, false, S::notStarted, ""},
                      TransitionCase{S::starting, Event::pause, false, S::starting, ""},
                      TransitionCase{S::paused, Event::pause, false, S::paused, ""},
                      TransitionCase{S::shutdown, Event::pause, false, S::shutdown, ""},
                      TransitionCase{S::paused, Event::resume, true, S::running, "resume"},
                      TransitionCase{S::running, Event::resume, false, S::running, ""},
                      TransitionCase{S::notStarted, Event::resume, false, S::notStarted, ""},
                      TransitionCase{S::shutdown, Event::resume, false, S::shutdown, ""},
                      TransitionCase{S::running, Event::shutdown, true, S::shutdown, "shutdown"},
                      TransitionCase{S::paused, Event::shutdown, true, S::shutdown, "shutdown"},
                      TransitionCase{S::notStarted, Event::shutdown, false, S::notStarted, ""},
                      TransitionCase{S::starting, Event::shutdown, false, S::starting, ""},
                      TransitionCase{S::shutdown, Event::shutdown, false, S::shutdown, ""}));

TEST(LifecycleCoordinatorTest, TransitionsApplyWithoutHooks) {
  QEVRLifecycleCoordinator c;
  ASSERT_TRUE(c.beginStarting());
  c.start();
  EXPECT_TRUE(c.pause());
  EXPECT_EQ(c.state(), S::paused);
}

TEST(LifecycleCoordinatorTest, FailingStartHookLeavesRunningUntilReset) {
  QEVRLifecycleCoordinator c;
  QEVRLifecycleHooks hooks;
  hooks.onStart = [] { throw std::runtime_error("module failed"); };
  int shutdowns = 0;
  hooks.onShutdown = [&] { ++shutdowns; };
  c.replaceHooks(hooks);
  ASSERT_TRUE(c.beginStarting());
  EXPECT_THROW(c.start(), std::runtime_error);
  EXPECT_EQ(c.state(), S::running);
  c.reset();
  EXPECT_EQ(c.state(), S::notStarted);
  // The reset cleared the hooks as well.
  ASSERT_TRUE(c.beginStarting());
  c.start();
  EXPECT_TRUE(c.shutdown());
  EXPECT_EQ(shutdowns, 0);
}

TEST(LifecycleCoordinatorTest, HookMayCallBackIntoTheCoordinator) {
  QEVRLifecycleCoordinator c;
  QEVRLifecycleHooks hooks;
  // A module that shuts the system down from its own start: no self-deadlock.
  hooks.onStart = [&] { EXPECT_TRUE(c.shutdown()); };
  c.replaceHooks(hooks);
  c.beginStarting();
  c.start();
  EXPECT_EQ(c.state(), S::shutdown);
}

}  // namespace
