#include <QEVRCore/QEVRDependencyContainer.h>

#include <cxxabi.h>

#include <cstdlib>
#include <utility>

QEVRDependencyError::QEVRDependencyError(Case c, std::string typeName)
    : std::runtime_error(
          (c == Case::duplicateRegistration ? "duplicateRegistration(" : "missingDependency(") +
          typeName + ")"),
      errorCase(c),
      name(std::move(typeName)) {}

std::string plainTypeName(const std::type_info& type) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string name = (status == 0 && demangled) ? demangled : type.name();
  std::free(demangled);
  // Drop template arguments, then any namespace qualification.
  if (auto angle = name.find('<'); angle != std::string::npos) name.resize(angle);
  if (auto colon = name.rfind("::"); colon != std::string::npos) name.erase(0, colon + 2);
  return name;
}

void QEVRDependencyContainer::insert(const std::type_info& type, std::shared_ptr<void> service,
                                     bool replace) {
  std::shared_ptr<void> previous;  // released after the lock, in case it calls back
  bool duplicate = false;
  {
    qevr::MutexLock guard(lock);
    auto [it, inserted] = services.try_emplace(std::type_index(type), service);
    if (!inserted) {
      if (replace) {
        previous = std::exchange(it->second, std::move(service));
      } else {
        duplicate = true;  // the first entry stays
      }
    }
  }
  if (duplicate) throw QEVRDependencyError::duplicateRegistration(plainTypeName(type));
}

std::shared_ptr<void> QEVRDependencyContainer::find(const std::type_info& type) const {
  {
    qevr::MutexLock guard(lock);
    auto it = services.find(std::type_index(type));
    if (it != services.end()) return it->second;
  }
  throw QEVRDependencyError::missingDependency(plainTypeName(type));
}

void QEVRDependencyContainer::removeAll() {
  std::unordered_map<std::type_index, std::shared_ptr<void>> dropped;
  {
    qevr::MutexLock guard(lock);
    dropped.swap(services);
  }
  // Services are released here, outside the lock: a destructor may call back.
}

size_t QEVRDependencyContainer::count() const {
  qevr::MutexLock guard(lock);
  return services.size();
}
