#include "capi/error.h"

#include <array>
#include <cstddef>
#include <new>
#include <utility>

namespace tolk {
namespace {

constexpr std::array kNames{"ok",        "timed_out",     "cancelled",       "gone",
                            "closed",    "not_connected", "refused",         "cannot_listen",
                            "no_method", "failed",        "wrong_arguments", "unanswered",
                            "busy",      "too_large",     "malformed",       "bad_address",
                            "file",      "misuse",        "no_memory"};

std::string text_of(const Failure& failure) {
  std::string text = failure.method;
  if (!text.empty() && !failure.address.empty()) text += " at ";
  text += failure.address;
  if (!text.empty()) text += ": ";
  return text += failure.reason;
}

const char* or_empty(const tolk_error* error, const std::string Failure::*member) {
  return error == nullptr ? "" : (error->failure.*member).c_str();
}

}  // namespace

tolk_error* no_memory_error() noexcept {
  static tolk_error* const error = [] {
    Failure failure;
    failure.status = TOLK_NO_MEMORY;
    auto* const made = new tolk_error(std::move(failure));
    made->is_static = true;
    return made;
  }();
  return error;
}

tolk_error* new_error(Failure failure) noexcept {
  try {
    return new tolk_error(std::move(failure));
  } catch (const std::bad_alloc&) {
    return no_memory_error();
  }
}

tolk_status fail_without_memory(tolk_error** to) noexcept {
  if (to != nullptr) *to = no_memory_error();
  return TOLK_NO_MEMORY;
}

tolk_status fail(tolk_error** to, Failure failure) noexcept {
  const tolk_status status = failure.status;
  if (to != nullptr) *to = new_error(std::move(failure));
  return status;
}

const char* status_reason(tolk_status status) noexcept { return tolk_status_name(status); }
const char* status_hint(tolk_status) noexcept { return ""; }

}  // namespace tolk

tolk_error::tolk_error(tolk::Failure of) : failure(std::move(of)) {
  if (failure.reason.empty()) failure.reason = tolk::status_reason(failure.status);
  text = tolk::text_of(failure);
}

using tolk::Failure;
using tolk::or_empty;

const char* tolk_version() { return "1.1.0"; }

const char* tolk_status_name(tolk_status status) {
  const auto at = static_cast<std::size_t>(status);
  return at < tolk::kNames.size() ? tolk::kNames.at(at) : "unknown";
}
tolk_status tolk_error_status(const tolk_error* error) {
  return error == nullptr ? TOLK_OK : error->failure.status;
}
const char* tolk_error_text(const tolk_error* error) {
  return error == nullptr ? "" : error->text.c_str();
}
const char* tolk_error_reason(const tolk_error* error) { return or_empty(error, &Failure::reason); }
const char* tolk_error_method(const tolk_error* error) { return or_empty(error, &Failure::method); }
const char* tolk_error_address(const tolk_error* error) {
  return or_empty(error, &Failure::address);
}
const char* tolk_error_peer(const tolk_error* error) { return or_empty(error, &Failure::peer); }
const char* tolk_error_wanted(const tolk_error* error) { return or_empty(error, &Failure::wanted); }
const char* tolk_error_found(const tolk_error* error) { return or_empty(error, &Failure::found); }
const char* tolk_error_hint(const tolk_error* error) {
  return error == nullptr ? "" : tolk::status_hint(error->failure.status);
}
int32_t tolk_error_code(const tolk_error* error) {
  return error == nullptr ? 0 : error->failure.code;
}
const tolk_block* tolk_error_details(const tolk_error* error) {
  return error == nullptr ? nullptr : error->failure.details.get();
}
tolk_error* tolk_error_copy(const tolk_error* error) {
  auto* const shared = const_cast<tolk_error*>(error);
  if (shared != nullptr && !shared->is_static) ++shared->owners;
  return shared;
}
void tolk_error_free(tolk_error* error) {
  if (error != nullptr && !error->is_static && --error->owners == 0) delete error;
}
