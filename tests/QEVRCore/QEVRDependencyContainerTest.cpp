#include <QEVRCore/QEVRDependencyContainer.h>
#include <QEVRCore/QEVRModule.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ThrowsMessage.h"

namespace {

using qevr::testing::throwsWithMessage;

struct Base {
  virtual ~Base() = default;
};
struct Derived : Base {};

TEST(DependencyContainerTest, DuplicateRegistrationKeepsTheFirstAndNamesTheType) {
  QEVRDependencyContainer c;
  c.register_<QEVRConfiguration>(
      std::make_shared<QEVRConfiguration>(QEVRConfiguration{.appId = "first"}));
  EXPECT_THAT([&] { c.register_<QEVRConfiguration>(std::make_shared<QEVRConfiguration>()); },
              throwsWithMessage<QEVRDependencyError>("duplicateRegistration(QEVRConfiguration)"));
  EXPECT_EQ(c.resolve<QEVRConfiguration>()->appId, "first");
  c.removeAll();
  EXPECT_NO_THROW(c.register_<QEVRConfiguration>(std::make_shared<QEVRConfiguration>()));
}

TEST(DependencyContainerTest, ResolveIsKeyedByTheStaticRegistrationType) {
  QEVRDependencyContainer c;
  auto object = std::make_shared<Derived>();
  c.register_<Base>(object);
  EXPECT_EQ(c.resolve<Base>(), object);
  EXPECT_THAT([&] { c.resolve<Derived>(); },
              throwsWithMessage<QEVRDependencyError>("missingDependency(Derived)"));
}

TEST(DependencyContainerTest, StoreReplacesWithoutError) {
  QEVRDependencyContainer c;
  struct P : QEVRDiagnosticContextProviding {
    QEVRDiagnosticContext currentContext() override { return {}; }
  };
  auto a = std::make_shared<P>(), b = std::make_shared<P>();
  c.store<QEVRDiagnosticContextProviding>(a);
  c.store<QEVRDiagnosticContextProviding>(b);
  EXPECT_EQ(c.resolve<QEVRDiagnosticContextProviding>(), b);
  EXPECT_EQ(c.count(), 1u);
}

}  // namespace
