#include "QEVRLifecycleCoordinator.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using S = QEVRLifecycleState;

enum class Event { beginStarting, start, pause, resume, shutdown };

// Makes the call `event` names; whether it applied. start() says nothing, so
// it counts as applied when it moved the state.
bool apply(QEVRLifecycleCoordinator& c, Event event) {
  const S before = c.state();
  switch (event) {
    case Event::beginStarting:
      return c.beginStarting();
    case Event::start:
      c.start();
      return c.state() != before;
    case Event::pause:
      return c.pause();
    case Event::resume:
      return c.resume();
    case Event::shutdown:
      return c.shutdown();
  }
  return false;
}

// The legal calls that bring a new coordinator to each state between calls.
const std::map<S, std::vector<Event>> kPathTo = {
    {S::notStarted, {}},
    {S::starting, {Event::beginStarting}},
    {S::running, {Event::beginStarting, Event::start}},
    {S::paused, {Event::beginStarting, Event::start, Event::pause}},
    {S::shutdown, {Event::beginStarting, Event::start, Event::shutdown}},
};

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
  for (Event event : kPathTo.at(tc.from))
    ASSERT_TRUE(apply(c, event));
  std::vector<std::string> calls;
  std::vector<S> seen;
  const auto record = [&](const char* hook) {
    return [&, hook] { calls.push_back(hook), seen.push_back(c.state()); };
  };
  c.replaceHooks({record("start"), record("pause"), record("resume"), record("shutdown")});

  EXPECT_EQ(apply(c, tc.event), tc.applies);
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
