// The ...Async form of a blocking operation: the operation runs as a
// detached utility task, and a std::future carries its result or its
// exception back.
#pragma once

#include <QEVRPlatform/Tasks.h>

#include <exception>
#include <future>
#include <memory>
#include <stop_token>
#include <type_traits>
#include <utility>

namespace qevr {

// `body(stop_token)` on `executor`; the future holds what it returns or
// throws. Dropping the future neither waits for nor cancels the work.
template <typename F>
auto runAsFuture(Executor& executor, F body) {
  using R = decltype(body(std::stop_token{}));
  auto promise = std::make_shared<std::promise<R>>();
  auto future = promise->get_future();
  detachTask(executor, TaskPriority::utility,
             [promise, body = std::move(body)](std::stop_token stop) {
               try {
                 if constexpr (std::is_void_v<R>) {
                   body(stop);
                   promise->set_value();
                 } else {
                   promise->set_value(body(stop));
                 }
               } catch (...) {
                 promise->set_exception(std::current_exception());
               }
             });
  return future;
}

// The same on the default executor.
template <typename F>
auto runAsFuture(F body) {
  return runAsFuture(defaultExecutor(), std::move(body));
}

}  // namespace qevr
