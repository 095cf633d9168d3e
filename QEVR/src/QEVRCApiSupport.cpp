#include "QEVRCApiSupport.h"

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVCompressionEngine.h>
#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRCore/QEVRDependencyContainer.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>

namespace qevr::capi {
namespace {

// The calling thread's last error. `lastError` holds the text; `lastErrorView`
// points at it, or at a static text when storing it failed.
thread_local std::string lastError;
thread_local const char* lastErrorView = "";

}  // namespace

qevr_status recordFailure(qevr_status status, std::string_view text) noexcept {
  try {
    lastError.assign(text);
    lastErrorView = lastError.c_str();
  } catch (...) {
    lastErrorView = "out of memory while recording the error";
  }
  return status;
}

void clearLastError() noexcept {
  lastError.clear();
  lastErrorView = "";
}

const char* lastErrorText() noexcept {
  return lastErrorView;
}

std::pair<qevr_status, std::string> describeCurrentException() {
  try {
    throw;
  } catch (const Failure& e) {
    return {e.status(), e.what()};
  } catch (const QEVRCancellationError&) {
    return {QEVR_ERROR_CANCELLED, "The operation was cancelled."};
  } catch (const std::bad_alloc&) {
    return {QEVR_ERROR_OUT_OF_MEMORY, "out of memory"};
  } catch (const QEVRError& e) {
    return {QEVR_ERROR_INVALID_ARGUMENT, e.message()};
  } catch (const QEVFileMemoryStoreError& e) {
    if (e.kind() == QEVFileMemoryStoreError::Case::applicationSupportUnavailable) {
      return {QEVR_ERROR_UNAVAILABLE,
              "No application-support directory: set one with qevr_set_data_directory."};
    }
    return {QEVR_ERROR_IO, std::string("memory store: ") + e.what()};
  } catch (const qevr::json::DecodingError& e) {
    // Arguments are decoded before the facades run, so a decoding error
    // here comes from a file the store read.
    return {QEVR_ERROR_IO, std::string("a stored file is damaged: ") + e.what()};
  } catch (const QEVCompressionError& e) {
    return {QEVR_ERROR_IO, std::string("a stored file is damaged: ") + e.what()};
  } catch (const std::system_error& e) {
    // std::filesystem::filesystem_error included.
    return {QEVR_ERROR_IO, e.what()};
  } catch (const QEVMemoryModuleError& e) {
    return {QEVR_ERROR_UNAVAILABLE, std::string("memory module: ") + e.what()};
  } catch (const QEVRecommendationSourceUnavailableError& e) {
    return {QEVR_ERROR_UNAVAILABLE, e.what()};
  } catch (const QEVRDependencyError& e) {
    return {QEVR_ERROR_UNAVAILABLE, e.what()};
  } catch (const QEVIntelligenceError& e) {
    if (e.kind() == QEVIntelligenceError::Case::invalidRequest) {
      return {QEVR_ERROR_INVALID_ARGUMENT, e.errorDescription()};
    }
    return {QEVR_ERROR_UNAVAILABLE, e.errorDescription()};
  } catch (const std::exception& e) {
    return {QEVR_ERROR_INTERNAL, std::string("internal error: ") + e.what()};
  } catch (...) {
    return {QEVR_ERROR_INTERNAL, "internal error: an unknown exception"};
  }
}

std::optional<std::string_view> optionalText(const char* text, std::string_view name) {
  if (text == nullptr) return std::nullopt;
  std::string_view view(text);
  if (!qevr::text::isValidUtf8(view)) {
    throw Failure(QEVR_ERROR_INVALID_UTF8, std::string(name) + " is not well-formed UTF-8");
  }
  return view;
}

std::string_view requiredText(const char* text, std::string_view name) {
  if (text == nullptr) {
    throw Failure(QEVR_ERROR_INVALID_ARGUMENT, std::string(name) + " must not be NULL");
  }
  return *optionalText(text, name);
}

void prepareOut(char** out, std::string_view name) {
  if (out == nullptr) {
    throw Failure(QEVR_ERROR_INVALID_ARGUMENT, std::string(name) + " must not be NULL");
  }
  *out = nullptr;
}

void handOut(char** out, const std::string& text) {
  // malloc, not new[]: qevr_string_free must be able to release it without
  // knowing its length, and a host's allocator never sees it.
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  *out = copy;
}

qevr::json::Value parseArgument(std::string_view text, std::string_view name) {
  return decodeArgument(name, [&] { return qevr::json::parse(text); });
}

std::string completedRecordJSON(const char* json, std::string_view name,
                                std::string_view defaultsJSON) {
  const std::optional<std::string_view> text = optionalText(json, name);
  qevr::json::Value record = qevr::json::parse(defaultsJSON);
  if (!text) return std::string(defaultsJSON);
  const qevr::json::Value given = parseArgument(*text, name);
  if (given.type() != qevr::json::Value::Type::object) {
    throw Failure(QEVR_ERROR_INVALID_JSON, std::string(name) + ": expected a JSON object");
  }
  for (const qevr::json::Member& member : given.object()) {
    bool known = false;
    for (qevr::json::Member& slot : record.object()) {
      if (slot.key == member.key) {
        slot.value = member.value;
        known = true;
        break;
      }
    }
    if (!known) {
      throw Failure(QEVR_ERROR_INVALID_JSON,
                    std::string(name) + ": unknown key \"" + member.key + "\"");
    }
  }
  return qevr::json::serialize(record);
}

}  // namespace qevr::capi
