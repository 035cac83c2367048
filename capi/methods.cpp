#include "capi/methods.h"

#include <cstring>
#include <utility>

#include "capi/error.h"
#include "capi/options.h"
#include "platform/guarded.h"
#include "transport/reserved_names.h"

namespace tolk {

bool MethodTable::add(std::shared_ptr<const Method> method) {
  std::shared_ptr<const Methods> old;  // its contexts are released after the lock
  const auto methods = methods_.lock();
  auto changed = *methods ? std::make_shared<Methods>(**methods) : std::make_shared<Methods>();
  auto& place = (*changed)[method->name];
  if (place && !place->removed) return false;
  place = std::move(method);
  old = std::exchange(*methods, std::move(changed));
  return true;
}

bool MethodTable::remove(std::string_view name) {
  std::shared_ptr<const Methods> old;  // its contexts are released after the lock
  const auto methods = methods_.lock();
  const auto at = *methods ? (*methods)->find(name) : Methods::const_iterator();
  if (!*methods || at == (*methods)->end() || at->second->removed.exchange(true)) return false;
  guarded([&] {
    auto changed = std::make_shared<Methods>(**methods);
    changed->erase(at->first);
    old = std::exchange(*methods, std::move(changed));
  });
  return true;
}

std::shared_ptr<const Method> MethodTable::find(std::string_view name) const {
  const auto methods = methods_.lock();
  if (!*methods) return nullptr;
  const auto present = [&](std::string_view wanted) -> std::shared_ptr<const Method> {
    const auto at = (*methods)->find(wanted);
    return at == (*methods)->end() || at->second->removed ? nullptr : at->second;
  };
  const auto found = name.empty() ? nullptr : present(name);
  return found ? found : present(std::string_view());
}

namespace {

bool is_reserved(std::string_view name) {
  return name.empty() || name == kReply || name.starts_with("s_c_") || name.starts_with("tolk.");
}

tolk_status misuse(tolk_error** error, const char* reason) {
  Failure failure;
  failure.status = TOLK_MISUSE;
  failure.reason = reason;
  return fail(error, std::move(failure));
}

tolk_status add_method(tolk_methods* methods, const char* name, tolk_handler handler,
                       Context context, const tolk_method_options& options, tolk_error** error) {
  if (methods == nullptr || handler == nullptr)
    return misuse(error, "there is no table or handler");
  if (name != nullptr && is_reserved(name)) return misuse(error, "the name is reserved");
  auto method = std::make_shared<Method>();
  method->name = name == nullptr ? "" : name;
  method->handler = handler;
  method->context = std::move(context);
  method->flags = options.flags;
  method->signature = options.signature == nullptr ? "" : options.signature;
  method->about = options.about == nullptr ? "" : options.about;
  method->accept = options.accept;
  method->progress = options.progress;
  if (methods->table->add(std::move(method))) return TOLK_OK;
  return misuse(error, "the name is in the table already");
}

}  // namespace
}  // namespace tolk

tolk_methods* tolk_methods_new() {
  return tolk::guarded_or<tolk_methods*>(nullptr, [] { return new tolk_methods; });
}

tolk_status tolk_methods_add(tolk_methods* methods, const char* name, tolk_handler handler,
                             void* context, const tolk_method_options* options,
                             tolk_error** error) {
  return tolk::guarded_call(error, [&] {
    if (tolk::is_without_size(options)) {
      return tolk::misuse(
          error, "the size of tolk_method_options is 0; it is sizeof(tolk_method_options)");
    }
    const auto given = tolk::options_of(options);
    return tolk::add_method(methods, name, handler, {context, given.free_context}, given, error);
  });
}

bool tolk_methods_remove(tolk_methods* methods, const char* name) {
  if (methods == nullptr) return false;
  return methods->table->remove(name == nullptr ? "" : name);
}

void tolk_methods_free(tolk_methods* methods) { delete methods; }
