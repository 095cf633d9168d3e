#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverModule.h>

#include "QEVObserverRuntime.h"

#include <QEVRPlatform/Log.h>

namespace {

using State = QEVObserverEventDispatcher::State;
namespace validate = QEVObserverInputValidation;

struct Messages {
  std::string_view validationFailed;
  std::string_view notRunning;
  std::string_view disabled;
  std::string_view sanitizationFailed;
};

void logLine(std::string_view text) {
  qevr::platformLog("QEVObserver", "Events", qevr::LogType::error, text);
}

const Messages kTrack{"Custom event ignored because validation failed",
                      "Custom event ignored because QEVObserver is not running",
                      "Custom event ignored because custom tracking is disabled",
                      "Custom event ignored because sanitization failed"};
const Messages kScreenView{"Screen view ignored because validation failed",
                           "Screen view ignored because QEVObserver is not running",
                           "Screen view ignored because screen tracking is disabled",
                           "Screen view ignored because sanitization failed"};
const Messages kScreenDisappear{"Screen disappear ignored because validation failed",
                                "Screen disappear ignored because QEVObserver is not running",
                                "Screen disappear ignored because screen tracking is disabled",
                                "Screen disappear ignored because sanitization failed"};
const Messages kNavigation{"Navigation ignored because validation failed",
                           "Navigation ignored because QEVObserver is not running",
                           "Navigation ignored because screen tracking is disabled",
                           "Navigation ignored because sanitization failed"};
const Messages kButtonTap{"Button tap ignored because validation failed",
                          "Button tap ignored because QEVObserver is not running",
                          "Button tap ignored because component tracking is disabled",
                          "Button tap ignored because sanitization failed"};
const Messages kGesture{"Gesture ignored because validation failed",
                        "Gesture ignored because QEVObserver is not running",
                        "Gesture ignored because gesture tracking is disabled",
                        "Gesture ignored because sanitization failed"};

std::optional<std::string> metadataString(const QEVObserverEvent& event, const char* key) {
  auto it = event.metadata().find(key);
  if (it == event.metadata().end()) return std::nullopt;
  if (const std::string* text = it->second.stringValue()) return *text;
  return std::nullopt;
}

// The common road of every event call, in its fixed order. `build` makes the
// event from the host's input (step 1), `allowed` reads the call's privacy
// flag, `fillScreen` says whether a missing screen comes from the tracker,
// and `update` records the sanitised event in the trackers after dispatch.
template <typename Build, typename Allowed, typename Before, typename Update>
bool runPipeline(const Messages& messages, Build&& build, Allowed&& allowed, bool fillScreen,
                 Before&& beforeDispatch, Update&& update) {
  std::optional<QEVObserverEvent> event;
  try {
    event.emplace(build());
  } catch (const QEVObserverEventInputValidationError&) {
    logLine(messages.validationFailed);
    return false;
  } catch (const QEVObserverEventValidationError&) {
    logLine(messages.validationFailed);
    return false;
  }

  const std::optional<QEVObserverRuntime::Snapshot> snapshot =
      QEVObserverRuntime::shared().snapshot();
  if (!snapshot) {
    logLine(messages.notRunning);
    return false;
  }
  if (!allowed(snapshot->privacyOptions)) {
    logLine(messages.disabled);
    return false;
  }
  const QEVObserverRuntime::Binding& bound = *snapshot->binding;
  if (fillScreen && !event->screenName()) {
    if (auto current = bound.screenTracker->currentName()) {
      event = std::move(*event).withScreenName(std::move(current));
    }
  }
  std::optional<QEVObserverEvent> clean = std::move(*event).sanitized();
  if (!clean) {
    logLine(messages.sanitizationFailed);
    return false;
  }
  beforeDispatch(bound, *clean);
  // What the trackers need is taken now, so the event itself can move on.
  auto pending = update(*clean);
  bound.dispatcher->dispatch(std::move(*clean), {State::running});
  pending(bound);
  return bound.dispatcher->state() == State::running;
}

auto noBefore = [](const QEVObserverRuntime::Binding&, const QEVObserverEvent&) {};
auto noUpdate = [](const QEVObserverEvent&) { return [](const QEVObserverRuntime::Binding&) {}; };

}  // namespace

namespace QEVR::Observer {

QEVObserverPrivacyOptions privacyOptions() {
  return QEVObserverRuntime::shared().privacyOptions();
}

void configure(const QEVObserverPrivacyOptions& options) {
  QEVObserverRuntime::shared().configure(options);
}

bool track(std::string_view name, const QEVObserverMetadata& metadata) {
  return runPipeline(
      kTrack,
      [&] {
        std::string trimmed = validate::requiredName(name);
        QEVObserverMetadata entries = validate::metadata(metadata, 1);  // and "name"
        return QEVObserverEvent::custom(std::move(trimmed), QEVRUUID::random(), qevr::now(),
                                        std::nullopt, std::nullopt, std::nullopt,
                                        std::move(entries));
      },
      [](const QEVObserverPrivacyOptions& o) { return o.allowCustomEvents; }, true, noBefore,
      noUpdate);
}

bool screenView(std::string_view name, const QEVObserverMetadata& metadata) {
  return runPipeline(
      kScreenView,
      [&] {
        std::string trimmed = validate::requiredName(name);
        return QEVObserverEvent(QEVRUUID::random(), QEVObserverEventType::screenView, qevr::now(),
                                std::nullopt, std::move(trimmed), std::nullopt,
                                validate::metadata(metadata));
      },
      [](const QEVObserverPrivacyOptions& o) { return o.allowScreenTracking; }, false,
      [](const QEVObserverRuntime::Binding& b, const QEVObserverEvent& e) {
        b.screenTracker->setCurrentName(e.screenName());
      },
      noUpdate);
}

bool screenDisappear(std::string_view name, const QEVObserverMetadata& metadata) {
  return runPipeline(
      kScreenDisappear,
      [&] {
        std::string trimmed = validate::requiredName(name);
        return QEVObserverEvent(QEVRUUID::random(), QEVObserverEventType::screenDisappear,
                                qevr::now(), std::nullopt, std::move(trimmed), std::nullopt,
                                validate::metadata(metadata));
      },
      [](const QEVObserverPrivacyOptions& o) { return o.allowScreenTracking; }, false, noBefore,
      [](const QEVObserverEvent& e) {
        return [screen = e.screenName()](const QEVObserverRuntime::Binding& b) {
          if (screen) b.screenTracker->clearIfCurrent(*screen);
        };
      });
}

bool navigation(std::optional<std::string_view> from, std::string_view to,
                const QEVObserverMetadata& metadata) {
  return runPipeline(
      kNavigation,
      [&] {
        std::string destination = validate::requiredName(to);
        std::optional<std::string> source;
        if (from) source = validate::optionalName(*from);
        QEVObserverMetadata entries = validate::metadata(metadata, 2);  // and "to", "from"
        entries.insert_or_assign("to", QEVObserverMetadataValue(destination));
        if (source) entries.insert_or_assign("from", QEVObserverMetadataValue(*source));
        return QEVObserverEvent(QEVRUUID::random(), QEVObserverEventType::navigation, qevr::now(),
                                std::nullopt, std::move(destination), std::nullopt,
                                std::move(entries));
      },
      [](const QEVObserverPrivacyOptions& o) { return o.allowScreenTracking; }, false, noBefore,
      [](const QEVObserverEvent& e) {
        return [source = metadataString(e, "from"),
                destination = e.screenName()](const QEVObserverRuntime::Binding& b) {
          b.navigationTracker->set(source, destination.value_or(std::string()));
          if (destination) b.screenTracker->setCurrentName(destination);
        };
      });
}

bool buttonTap(std::string_view componentId, std::optional<std::string_view> title,
               const QEVObserverMetadata& metadata) {
  return runPipeline(
      kButtonTap,
      [&] {
        std::string id = validate::requiredName(componentId);
        std::optional<std::string> label;
        if (title) label = validate::optionalName(*title);
        QEVObserverMetadata entries = validate::metadata(metadata, 1);  // and "title"
        if (label) entries.insert_or_assign("title", QEVObserverMetadataValue(std::move(*label)));
        return QEVObserverEvent(QEVRUUID::random(), QEVObserverEventType::buttonTap, qevr::now(),
                                std::nullopt, std::nullopt, std::move(id), std::move(entries));
      },
      [](const QEVObserverPrivacyOptions& o) { return o.allowComponentTracking; }, true, noBefore,
      [](const QEVObserverEvent& e) {
        return [interaction = QEVComponentInteractionTracker::Interaction{
                    e.componentId().value_or(std::string()),
                    metadataString(e, "title")}](const QEVObserverRuntime::Binding& b) {
          b.componentInteractionTracker->set(interaction);
        };
      });
}

bool gesture(QEVGestureType type, std::optional<std::string_view> componentId,
             const QEVObserverMetadata& metadata) {
  // A value cast from an integer that names no gesture is dropped before it
  // reaches any tracker or sink.
  if (!isGestureType(type)) return false;
  return runPipeline(
      kGesture,
      [&] {
        std::optional<std::string> id;
        if (componentId) id = validate::requiredName(*componentId);
        QEVObserverMetadata entries = validate::metadata(metadata, 1);  // and "gestureType"
        entries.insert_or_assign("gestureType",
                                 QEVObserverMetadataValue(std::string(rawValueOf(type))));
        return QEVObserverEvent(QEVRUUID::random(), QEVObserverEventType::gesture, qevr::now(),
                                std::nullopt, std::nullopt, std::move(id), std::move(entries));
      },
      [](const QEVObserverPrivacyOptions& o) { return o.allowGestureTracking; }, true, noBefore,
      [type](const QEVObserverEvent& e) {
        return [gesture = QEVGestureTracker::Gesture{type, e.componentId()}](
                   const QEVObserverRuntime::Binding& b) { b.gestureTracker->set(gesture); };
      });
}

}  // namespace QEVR::Observer

namespace QEVObserverViewHelpers {

namespace {
bool helpersAllowed() {
  return QEVObserverRuntime::shared().privacyOptions().allowSwiftUIHelpers;
}
}  // namespace

void screenAppeared(std::string_view screenName) {
  if (helpersAllowed()) QEVR::Observer::screenView(screenName, {});
}

void screenDisappeared(std::string_view screenName) {
  if (helpersAllowed()) QEVR::Observer::screenDisappear(screenName, {});
}

void componentTapped(std::string_view componentId, std::optional<std::string_view> title) {
  if (helpersAllowed()) QEVR::Observer::buttonTap(componentId, title, {});
}

}  // namespace QEVObserverViewHelpers
