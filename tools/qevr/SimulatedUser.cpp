#include "SimulatedUser.h"

#include <QEVR/QEVR.h>

#include <array>
#include <string>

namespace {

// Names with non-ASCII text and slashes, as real hosts send them.
constexpr std::array<const char*, 8> kScreens = {"Home",    "Settings/Profile", "Level 1",
                                                 "Level 2", "Boutique",         "Écran d’accueil",
                                                 "Map ✨",   "Inbox/Archive"};
constexpr std::array<const char*, 6> kComponents = {"play",      "pause", "buy_button",
                                                    "menu/open", "like",  "close"};
constexpr std::array<const char*, 5> kCustomEvents = {"level_completed", "item_bought",
                                                      "achievement", "retry", "tutorial_skip"};

}  // namespace

std::uint64_t SimulatedUser::visit(std::uint64_t count) {
  std::uint64_t accepted = 0;
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  for (std::uint64_t i = 0; i < count; ++i) {
    bool ok = false;
    switch (pick(10)) {
      case 0:
      case 1: {
        const int next = static_cast<int>(pick(kScreens.size()));
        ok = QEVR::Observer::navigation(std::string(kScreens[static_cast<size_t>(screen)]),
                                        kScreens[static_cast<size_t>(next)], {});
        screen = next;
        break;
      }
      case 2:
        ok = QEVR::Observer::screenView(kScreens[static_cast<size_t>(screen)],
                                        {{"visit", static_cast<std::int64_t>(i)}});
        break;
      case 3:
      case 4:
      case 5:
        ok = QEVR::Observer::buttonTap(
            kComponents[pick(kComponents.size())],
            pick(2) ? std::optional<std::string_view>("Tap me") : std::nullopt,
            {{"x", static_cast<std::int64_t>(pick(400))}});
        break;
      case 6:
      case 7:
        ok = QEVR::Observer::gesture(kAllGestureTypes[pick(kAllGestureTypes.size())],
                                     kComponents[pick(kComponents.size())], {});
        break;
      default:
        // A few sensitive keys that must never reach the disk.
        ok = QEVR::Observer::track(kCustomEvents[pick(kCustomEvents.size())],
                                   {{"score", static_cast<std::int64_t>(pick(10000))},
                                    {"accuracy", static_cast<double>(pick(1000)) / 1000.0},
                                    {"userEmail", "someone@example.com"},
                                    {"auth_token", "secret-value"},
                                    {"note", "ok / fine"}});
        break;
    }
    accepted += ok;
  }
  return accepted;
}
