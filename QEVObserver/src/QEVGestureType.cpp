#include <QEVObserver/QEVGestureType.h>

#include <QEVRPlatform/EnumText.h>

namespace {
constexpr std::array<std::string_view, 8> kGestureRawValues = {
    "tap", "doubleTap", "longPress", "swipe", "pinch", "pan", "rotate", "custom"};
}  // namespace

std::string_view rawValueOf(QEVGestureType type) {
  return qevr::enumText(kGestureRawValues, type);
}

bool isGestureType(QEVGestureType type) {
  return qevr::isEnumCase(kGestureRawValues, type);
}

std::optional<QEVGestureType> gestureTypeFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVGestureType>(kGestureRawValues, raw);
}
