// Asserting an exception's message, for the errors whose text is part of the
// contract (what a host logs or shows):
//
//   EXPECT_THAT([&] { store.load(path); },
//               throwsWithMessage<QEVFileMemoryStoreError>("corrupted chunk"));
//
// The call must throw exactly `E` (or a type derived from it) and its what()
// must equal `message`; anything else fails with both texts in the output.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <utility>

namespace qevr::testing {

template <typename E>
auto throwsWithMessage(std::string message) {
  return ::testing::ThrowsMessage<E>(::testing::StrEq(std::move(message)));
}

}  // namespace qevr::testing
