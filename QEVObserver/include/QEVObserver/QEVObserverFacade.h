// QEVR::Observer: how the host reports what happens.
//
// Every call runs on the caller's thread, typically the host's UI or game
// thread, sinks included, and returns true when the event was dispatched and
// the observer was still running afterwards (whether or not a sink exists).
// No host input raises an error: refusals log one fixed line under
// "QEVObserver"/"Events" and return false. Host text may be any bytes:
// invalid UTF-8 is repaired at this boundary.
//
// Cost: a call does its work in memory (about a microsecond on a desktop
// core). A chunk that it closes (100 events, or a session's end) is handed
// to a background save; the call does no disk work of its own while the
// disk keeps up. A host that gets 16 chunks ahead of the disk is paused
// inside the call until only 4 are left; if the pool has not drained
// within 200 ms, that call saves one chunk itself and returns.
#pragma once

#include <QEVObserver/QEVGestureType.h>
#include <QEVObserver/QEVObserverEvent.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>
#include <QEVObserver/QEVObserverSession.h>
#include <QEVRPlatform/Export.h>

#include <optional>
#include <string_view>

namespace QEVR::Observer {

inline constexpr std::string_view version = "0.2.0";

QEVR_API QEVObserverPrivacyOptions privacyOptions();
// Takes effect at the next call; survives module start and shutdown.
QEVR_API void configure(const QEVObserverPrivacyOptions& privacyOptions);

// A custom event named `name` (trimmed, 1 to 128 characters).
QEVR_API bool track(std::string_view name, const QEVObserverMetadata& metadata);
QEVR_API bool screenView(std::string_view name, const QEVObserverMetadata& metadata);
QEVR_API bool screenDisappear(std::string_view name, const QEVObserverMetadata& metadata);
// A blank `from` counts as absent.
QEVR_API bool navigation(std::optional<std::string_view> from, std::string_view to,
                         const QEVObserverMetadata& metadata);
// A blank `title` counts as absent.
QEVR_API bool buttonTap(std::string_view componentId, std::optional<std::string_view> title,
                        const QEVObserverMetadata& metadata);
// A present but blank `componentId` is refused.
QEVR_API bool gesture(QEVGestureType type, std::optional<std::string_view> componentId,
                      const QEVObserverMetadata& metadata);

}  // namespace QEVR::Observer

// Adapters for a host's view layer: each checks allowSwiftUIHelpers (doing
// nothing at all when it is off) and then makes the matching call with empty
// metadata, ignoring its result. Call them on the UI thread.
namespace QEVObserverViewHelpers {
QEVR_API void screenAppeared(std::string_view screenName);
QEVR_API void screenDisappeared(std::string_view screenName);
QEVR_API void componentTapped(std::string_view componentId, std::optional<std::string_view> title);
}  // namespace QEVObserverViewHelpers
