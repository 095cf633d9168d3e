// A per-type service table, rebuilt at every start.
#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>

// Thrown by the container. Two cases, each naming the type; no description.
class QEVR_API QEVRDependencyError : public std::runtime_error {
 public:
  enum class Case { duplicateRegistration, missingDependency };

  static QEVRDependencyError duplicateRegistration(std::string typeName) {
    return QEVRDependencyError(Case::duplicateRegistration, std::move(typeName));
  }
  static QEVRDependencyError missingDependency(std::string typeName) {
    return QEVRDependencyError(Case::missingDependency, std::move(typeName));
  }

  Case kind() const { return errorCase; }
  const std::string& typeName() const { return name; }
  bool operator==(const QEVRDependencyError& other) const {
    return errorCase == other.errorCase && name == other.name;
  }

 private:
  QEVRDependencyError(Case c, std::string typeName);
  Case errorCase;
  std::string name;
};

// The plain, unqualified name of a type, e.g. "QEVRLogger".
QEVR_API std::string plainTypeName(const std::type_info& type);

// Services are keyed by the static type they are registered under, not the
// dynamic type of the object. Every operation is atomic under `lock`.
class QEVR_API QEVRDependencyContainer {
 public:
  // Stores `service` under T. If T is present, throws duplicateRegistration
  // with T's name and leaves the table as it is.
  template <typename T>
  void register_(std::shared_ptr<T> service) {
    insert(typeid(T), std::static_pointer_cast<void>(std::move(service)), /*replace=*/false);
  }

  // Stores `service` under T, replacing a present entry without error.
  template <typename T>
  void store(std::shared_ptr<T> service) {
    insert(typeid(T), std::static_pointer_cast<void>(std::move(service)), /*replace=*/true);
  }

  // The service stored under T; throws missingDependency with T's name.
  template <typename T>
  std::shared_ptr<T> resolve() const {
    return std::static_pointer_cast<T>(find(typeid(T)));
  }

  void removeAll();
  size_t count() const;

 private:
  void insert(const std::type_info& type, std::shared_ptr<void> service, bool replace);
  std::shared_ptr<void> find(const std::type_info& type) const;

  mutable qevr::Mutex lock;
  std::unordered_map<std::type_index, std::shared_ptr<void>> services QEVR_GUARDED_BY(lock);
};
