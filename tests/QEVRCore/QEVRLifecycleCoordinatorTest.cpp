#include "QEVRLifecycleCoordinator.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using S = QEVRLifecycleState;

enum class E { beginStarting, start, pause, resume, shutdown };

// Makes the call `event` names; whether it applied. start() says nothing, so
// it counts as applied when it moved the state.
bool apply(QEVRLifecycleCoordinator& c, E event) {
  const S before = c.state();
  switch (event) {
    case E::beginStarting:
      return c.beginStarting();
    case E::start:
      c.start();
      return c.state() != before;
    case E::pause:
      return c.pause();
    case E::resume:
      return c.resume();
    case E::shutdown:
      return c.shutdown();
  }
  return false;
}

// Every state a coordinator rests in between calls, and the legal calls that
// bring a new one there without hooks.
const struct {
  S state;
  std::vector<E> path;
} kStates[] = {
    {S::notStarted, {}},
    {S::starting, {E::beginStarting}},
    {S::running, {E::beginStarting, E::start}},
    {S::paused, {E::beginStarting, E::start, E::pause}},
    {S::shutdown, {E::beginStarting, E::start, E::shutdown}},
};

// Where each call leads from each state of kStates, in its order. A call
// that leaves the state as it was must say it did not apply and run no hook.
TEST(LifecycleCoordinatorTest, EachCallAppliesOnlyFromItsSourceStatesAndRunsItsHook) {
  const struct {
    E event;
    S to[std::size(kStates)];
  } table[] = {
      {E::beginStarting, {S::starting, S::starting, S::running, S::paused, S::starting}},
      {E::start, {S::notStarted, S::running, S::running, S::paused, S::shutdown}},
      {E::pause, {S::notStarted, S::starting, S::paused, S::paused, S::shutdown}},
      {E::resume, {S::notStarted, S::starting, S::running, S::running, S::shutdown}},
      {E::shutdown, {S::notStarted, S::starting, S::shutdown, S::shutdown, S::shutdown}},
  };
  // The hook each call runs when it applies, in the order of E.
  const char* const hookOf[] = {"", "start", "pause", "resume", "shutdown"};
  for (const auto& row : table) {
    for (size_t i = 0; i < std::size(kStates); ++i) {
      const S from = kStates[i].state, to = row.to[i];
      SCOPED_TRACE(::testing::Message()
                   << "call " << static_cast<int>(row.event) << " from " << static_cast<int>(from));
      QEVRLifecycleCoordinator c;
      for (E event : kStates[i].path)
        ASSERT_TRUE(apply(c, event));
      std::vector<std::string> calls;
      std::vector<S> seen;
      const auto record = [&](const char* hook) {
        return [&, hook] { calls.push_back(hook), seen.push_back(c.state()); };
      };
      c.replaceHooks({record("start"), record("pause"), record("resume"), record("shutdown")});

      EXPECT_EQ(apply(c, row.event), to != from);
      EXPECT_EQ(c.state(), to);
      const char* hook = hookOf[static_cast<int>(row.event)];
      const bool hookRuns = to != from && *hook != '\0';
      EXPECT_EQ(calls, hookRuns ? std::vector<std::string>{hook} : std::vector<std::string>{});
      // A hook always finds the new state already in force.
      EXPECT_EQ(seen, std::vector<S>(calls.size(), to));
    }
  }
}

TEST(LifecycleCoordinatorTest, FailingStartHookLeavesRunningUntilReset) {
  QEVRLifecycleCoordinator c;
  int shutdowns = 0;
  c.replaceHooks({.onStart = [] { throw std::runtime_error("module failed"); },
                  .onShutdown = [&] { ++shutdowns; }});
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
  // A module that shuts the system down from its own start: no self-deadlock.
  c.replaceHooks({.onStart = [&] { EXPECT_TRUE(c.shutdown()); }});
  c.beginStarting();
  c.start();
  EXPECT_EQ(c.state(), S::shutdown);
}

}  // namespace
