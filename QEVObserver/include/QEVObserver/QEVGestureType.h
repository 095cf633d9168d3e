// The gestures the observer tells apart, and their raw values.
#pragma once

#include <QEVRPlatform/Export.h>

#include <array>
#include <optional>
#include <string_view>

enum class QEVGestureType { tap, doubleTap, longPress, swipe, pinch, pan, rotate, custom };

inline constexpr std::array<QEVGestureType, 8> kAllGestureTypes = {
    QEVGestureType::tap,    QEVGestureType::doubleTap, QEVGestureType::longPress,
    QEVGestureType::swipe,  QEVGestureType::pinch,     QEVGestureType::pan,
    QEVGestureType::rotate, QEVGestureType::custom};

// Throws std::invalid_argument for a value that names no case.
QEVR_API std::string_view rawValueOf(QEVGestureType type);
// False for a value cast from an integer that names no case.
QEVR_API bool isGestureType(QEVGestureType type);
QEVR_API std::optional<QEVGestureType> gestureTypeFromRawValue(std::string_view raw);
