// Two scripted users for the demo's recommendations: a shopper and a
// player, each with behaviour that several recommendation rules react to.
#pragma once

#include <cstdint>

// A visit to a shop: browses, hammers a coupon button that does not work,
// goes back and forth between cart and checkout, keeps returning to one
// product page, and looks at the wishlist and the offers.
std::uint64_t visitAsShopper();

// A game session: fails the same level again and again, retries, opens the
// tutorial and the difficulty picker, and plays a ranked mode.
std::uint64_t visitAsPlayer();
