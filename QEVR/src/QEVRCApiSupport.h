// What every C entry point shares: the thread's last error, the exception
// barrier, argument checks and the conversions between C strings and the
// records' JSON forms.
//
// An entry point checks all of its arguments before it acts, so a call that
// fails on an argument has changed nothing. Input errors are raised as
// qevr::capi::Failure with the code they deserve; whatever the facades throw
// afterwards is mapped by type in guarded().
#pragma once

#include <QEVR/qevr.h>
#include <QEVRPlatform/Json.h>

#include <exception>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>

struct qevr_cancel_token {
  std::stop_source source;
};

namespace qevr::capi {

// An argument the entry point refuses, with the text the host will read.
class Failure : public std::exception {
 public:
  Failure(qevr_status status, std::string text) : code(status), message(std::move(text)) {}
  qevr_status status() const { return code; }
  const char* what() const noexcept override { return message.c_str(); }

 private:
  qevr_status code;
  std::string message;
};

// Records `text` as the calling thread's last error and returns `status`.
qevr_status recordFailure(qevr_status status, std::string_view text) noexcept;
void clearLastError() noexcept;
const char* lastErrorText() noexcept;

// The status and text for the exception in flight. Only inside a catch.
std::pair<qevr_status, std::string> describeCurrentException();

// Runs `body`, turning every exception into a status and the thread's last
// error; QEVR_OK clears the last error.
template <typename Body>
qevr_status guarded(Body&& body) noexcept {
  try {
    body();
    clearLastError();
    return QEVR_OK;
  } catch (...) {
    // describeCurrentException allocates: if that fails too, the fixed text
    // still reaches the host.
    try {
      auto [status, text] = describeCurrentException();
      return recordFailure(status, text);
    } catch (...) {
      return recordFailure(QEVR_ERROR_OUT_OF_MEMORY, "out of memory");
    }
  }
}

// A required string argument: not NULL, well-formed UTF-8. `name` is the
// parameter's name in qevr.h.
std::string_view requiredText(const char* text, std::string_view name);
// As requiredText, but NULL is absent.
std::optional<std::string_view> optionalText(const char* text, std::string_view name);

// Checks an out-parameter and sets it to NULL, so that it is NULL on every
// failure.
void prepareOut(char** out, std::string_view name);
// Copies `text` into a string the host frees with qevr_string_free.
void handOut(char** out, const std::string& text);

// An option record's JSON in the record's own form, completed from
// `defaultsJSON` (the record's default, encoded): each key the input gives
// replaces the default's value, a key the default does not have is refused,
// NULL means the default unchanged. Raises Failure(QEVR_ERROR_INVALID_JSON)
// for text that is not a JSON object.
std::string completedRecordJSON(const char* json, std::string_view name,
                                std::string_view defaultsJSON);

// Runs `decode` on input JSON, turning any decoding failure into
// Failure(QEVR_ERROR_INVALID_JSON) that names the argument.
template <typename Decode>
auto decodeArgument(std::string_view name, Decode&& decode) {
  try {
    return decode();
  } catch (const Failure&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    throw Failure(QEVR_ERROR_INVALID_JSON, std::string(name) + ": " + e.what());
  }
}

// The parsed tree of a required JSON argument.
qevr::json::Value parseArgument(std::string_view text, std::string_view name);

// The token of a host's cancel token; an empty one for NULL.
inline std::stop_token stopTokenOf(const qevr_cancel_token* token) {
  return token ? token->source.get_token() : std::stop_token{};
}

}  // namespace qevr::capi
