// The contract between the core and its functional modules.
#pragma once

#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace qevr {
class Executor;
}  // namespace qevr

class QEVRDependencyContainer;
class QEVRLogger;
class QEVRModuleContextFactory;

// What a module reports about the current session and screen.
struct QEVR_API QEVRDiagnosticContext {
  std::optional<QEVRUUID> sessionId;
  std::optional<std::string> currentScreen;
  bool operator==(const QEVRDiagnosticContext&) const = default;
};

class QEVR_API QEVRDiagnosticContextProviding {
 public:
  virtual ~QEVRDiagnosticContextProviding() = default;
  // Called from any thread, never under a core lock.
  virtual QEVRDiagnosticContext currentContext() = 0;
};

// Background work: an asynchronous operation that checks `stop` for
// cancellation. It returns nothing and must not throw (what it throws is
// dropped without a log line).
using QEVRBackgroundOperation = std::function<void(std::stop_token stop)>;

// What a module is handed at start. Only the core can make one.
class QEVR_API QEVRModuleContext {
 public:
  const QEVRConfiguration& configuration() const { return config; }

  // Where this start's background work runs: the executor QEVR::start was
  // given, else the process-wide pool. For the work a module starts itself.
  qevr::Executor& executor() const { return *startExecutor; }

  // Hands `operation` to this start's background worker at medium priority.
  // False when the worker is disabled or shut down; `operation` then never
  // runs. A context kept after its container was emptied runs `operation` on
  // an untracked utility task of executor() and returns true: nothing can
  // cancel it.
  bool submitBackgroundWork(QEVRBackgroundOperation operation) const;

  // The last registration wins.
  void registerDiagnosticContextProvider(
      std::shared_ptr<QEVRDiagnosticContextProviding> provider) const;

  // Absent until a provider is registered. The provider is called outside
  // every lock.
  std::optional<QEVRDiagnosticContext> currentDiagnosticContext() const;

 private:
  friend class QEVRModuleContextFactory;
  QEVRModuleContext(QEVRConfiguration configuration,
                    std::shared_ptr<QEVRDependencyContainer> dependencyContainer,
                    std::shared_ptr<QEVRLogger> logger, qevr::Executor& executor);

  QEVRConfiguration config;
  std::shared_ptr<QEVRDependencyContainer> dependencyContainer;  // private to the core
  std::shared_ptr<QEVRLogger> logger;                            // private to the core
  qevr::Executor* startExecutor;                                 // never null
};

// A functional module. Every call is synchronous and comes on the thread of
// the facade call that caused it. pause(), resume() and shutdown() may arrive
// from another thread while start() still runs. shutdown() must leave the
// module able to start again.
class QEVR_API QEVRModule {
 public:
  virtual ~QEVRModule() = default;
  virtual std::string identifier() const = 0;
  virtual void start(const QEVRModuleContext& context) = 0;
  virtual void pause() = 0;
  virtual void resume() = 0;
  virtual void shutdown() = 0;
};
