#include "DemoPersonas.h"

#include <QEVR/QEVR.h>

#include <string>

namespace {

// Counts accepted calls, so the demo can show that nothing was refused.
struct Visit {
  std::uint64_t accepted = 0;

  void screen(const char* name) { accepted += QEVR::Observer::screenView(name, {}); }
  void go(const char* from, const char* to) {
    accepted += QEVR::Observer::navigation(from, to, {});
    screen(to);
  }
  void tap(const char* component, int times = 1) {
    for (int i = 0; i < times; ++i)
      accepted += QEVR::Observer::buttonTap(component, {}, {});
  }
  void event(const char* name, int times = 1) {
    for (int i = 0; i < times; ++i) {
      accepted += QEVR::Observer::track(name, {{"attempt", static_cast<std::int64_t>(i + 1)}});
    }
  }
};

}  // namespace

std::uint64_t visitAsShopper() {
  Visit v;
  v.screen("Home");
  v.go("Home", "Catalog");
  v.event("search_products", 2);
  for (int round = 0; round < 3; ++round) {
    v.go("Catalog", "Product Detail");
    v.tap("add_to_cart");
    v.go("Product Detail", "Catalog");
  }
  v.go("Catalog", "Product Detail");
  v.tap("wishlist_add", 2);
  v.go("Product Detail", "Cart");
  // The coupon field rejects the code, so the user keeps pressing.
  v.tap("apply_coupon", 12);
  for (int round = 0; round < 3; ++round) {
    v.go("Cart", "Checkout");
    v.go("Checkout", "Cart");
  }
  v.event("offers_viewed", 2);
  v.go("Cart", "Checkout");
  v.tap("pay_now");
  v.event("purchase_completed");
  return v.accepted;
}

std::uint64_t visitAsPlayer() {
  Visit v;
  v.screen("Main Menu");
  v.go("Main Menu", "Tutorial");
  v.go("Tutorial", "Main Menu");
  v.tap("difficulty_picker");
  for (int round = 0; round < 4; ++round) {
    v.go("Main Menu", "Level 3");
    v.event("level_failed", 2);
    v.tap("retry_button", 2);
    v.go("Level 3", "Main Menu");
  }
  v.event("ranked_mode_started");
  v.event("retry", 2);
  v.tap("jump", 6);
  return v.accepted;
}
