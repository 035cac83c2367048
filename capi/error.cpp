#include "capi/error.h"

#include <array>
#include <new>
#include <string_view>
#include <utility>

#include "capi/block.h"
#include "platform/never_destroyed.h"

namespace tolk {
namespace {

struct StatusTexts {
  const char* name;
  const char* reason;
  const char* hint;
};

constexpr StatusTexts kUnknown{"unknown", "unknown", "use the newer version of the library"};

constexpr std::array<StatusTexts, TOLK_NO_MEMORY + 1> kTexts{{
    {"ok", "", ""},
    {"timed_out", "timed out", "allow more time, or look what the handler is doing"},
    {"cancelled", "cancelled", "nothing, somebody wanted it so"},
    {"gone", "the connection has ended", "look why the other process ended, and connect again"},
    {"closed", "this end is closed", "call before it is closed, or connect again"},
    {"not_connected", "nobody is there",
     "start the server first, as the same user, and use its address"},
    {"refused", "the peer refused the connection",
     "use the same version of the library on both sides, as the same user"},
    {"cannot_listen", "cannot listen there",
     "stop the other server of that address, or choose another"},
    {"no_method", "no such method", "look at the name, and add the method before the first call"},
    {"failed", "failed", "look at the text, it is the handler's own"},
    {"wrong_arguments", "the handler takes others", "pass the arguments that the handler takes"},
    {"unanswered", "the handler dropped the request", "look why the handler does not answer"},
    {"busy", "too much is waiting", "call again later, or allow more"},
    {"too_large", "too many bytes", "send it in parts, or as a transfer"},
    {"malformed", "the bytes are not a block", "look at who has made the bytes"},
    {"bad_address", "not an address",
     "write pipe:5000, tcp4:127.0.0.1:5000, tcp6:[::1]:5000 or 5000"},
    {"file", "cannot be read or written", "look at the path, its rights and the space left"},
    {"misuse", "misuse", "correct the program"},
    {"no_memory", "no memory", "free memory, or send less at a time"},
}};

const StatusTexts& texts_of(tolk_status status) noexcept {
  const auto number = static_cast<std::size_t>(status);
  return number < kTexts.size() ? kTexts[number] : kUnknown;
}

// All of a failure in one line.
std::string line_of(const Failure& failure) {
  std::string text = failure.method;
  if (!failure.method.empty() && !failure.address.empty()) text += " at ";
  text += failure.address;
  if (!text.empty()) text += ": ";
  if (failure.status == TOLK_FAILED) text += "handler failed: ";
  if (failure.status == TOLK_WRONG_ARGUMENTS) text += "wrong arguments: ";
  return text += failure.reason;
}

Failure with_reason(Failure failure) {
  if (failure.reason.empty()) failure.reason = status_reason(failure.status);
  return failure;
}

// Made with the library, since there may be no memory for them later.
struct StaticError : tolk_error {
  explicit StaticError(tolk_status status) : tolk_error({.status = status}) { is_static = true; }
};

struct StaticErrors {
  StaticErrors() : StaticErrors(std::make_index_sequence<kTexts.size()>()) {}
  template <std::size_t... kStatus>
  explicit StaticErrors(std::index_sequence<kStatus...>)
      : of{StaticError(static_cast<tolk_status>(kStatus))...} {}

  std::array<StaticError, kTexts.size()> of;  // each status
};
NeverDestroyed<StaticErrors> static_errors;

}  // namespace

const char* status_hint(tolk_status status) noexcept { return texts_of(status).hint; }
const char* status_reason(tolk_status status) noexcept { return texts_of(status).reason; }

tolk_error* static_error(tolk_status status) noexcept {
  const bool is_known = static_cast<std::size_t>(status) < kTexts.size();
  return &static_errors->of[is_known ? status : TOLK_NO_MEMORY];
}

tolk_error* no_memory_error() noexcept { return static_error(TOLK_NO_MEMORY); }

tolk_error* new_error(Failure failure) noexcept {
  const tolk_status status = failure.status;
  if (status == TOLK_NO_MEMORY) return no_memory_error();
  try {
    return new tolk_error(std::move(failure));
  } catch (const std::exception&) {
    return static_error(status);
  }
}

tolk_status fail(tolk_error** to, Failure failure) noexcept {
  const tolk_status status = failure.status;
  if (to != nullptr) *to = new_error(std::move(failure));
  return status;
}

tolk_status fail_without_memory(tolk_error** to) noexcept {
  if (to != nullptr) *to = no_memory_error();
  return TOLK_NO_MEMORY;
}

}  // namespace tolk

tolk_error::tolk_error(tolk::Failure of)
    : failure(tolk::with_reason(std::move(of))), text(tolk::line_of(failure)) {}

const char* tolk_version() { return TOLK_VERSION; }

const char* tolk_status_name(tolk_status status) { return tolk::texts_of(status).name; }

tolk_status tolk_error_status(const tolk_error* error) {
  return error == nullptr ? TOLK_OK : error->failure.status;
}

const char* tolk_error_text(const tolk_error* error) {
  return error == nullptr ? "" : error->text.c_str();
}

const char* tolk_error_reason(const tolk_error* error) {
  return error == nullptr ? "" : error->failure.reason.c_str();
}

const char* tolk_error_method(const tolk_error* error) {
  return error == nullptr ? "" : error->failure.method.c_str();
}

const char* tolk_error_address(const tolk_error* error) {
  return error == nullptr ? "" : error->failure.address.c_str();
}

const char* tolk_error_peer(const tolk_error* error) {
  return error == nullptr ? "" : error->failure.peer.c_str();
}

const char* tolk_error_wanted(const tolk_error* error) {
  return error == nullptr ? "" : error->failure.wanted.c_str();
}

const char* tolk_error_found(const tolk_error* error) {
  return error == nullptr ? "" : error->failure.found.c_str();
}

const char* tolk_error_hint(const tolk_error* error) {
  if (error == nullptr) return "";
  const char* const hint = error->failure.hint;
  return hint != nullptr ? hint : tolk::status_hint(error->failure.status);
}

int32_t tolk_error_code(const tolk_error* error) {
  return error == nullptr ? 0 : error->failure.code;
}

const tolk_block* tolk_error_details(const tolk_error* error) {
  return error == nullptr ? nullptr : error->failure.details.get();
}

tolk_error* tolk_error_copy(const tolk_error* error) {
  if (error == nullptr) return tolk::static_error(TOLK_OK);
  error->owners.fetch_add(1, std::memory_order_relaxed);
  // The host's errors are const to it, not to their count.
  return const_cast<tolk_error*>(error);
}

void tolk_error_free(tolk_error* error) {
  if (error == nullptr || error->is_static) return;
  if (error->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) delete error;
}
