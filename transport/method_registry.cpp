#include "transport/method_registry.h"

#include <utility>

#include "platform/guarded.h"

namespace tolk {

HandlerOwner::~HandlerOwner() {
  if (!marked_for_deletion_) return;
  guarded([this] {
    delete method_;
    delete all_;
  });
}

template <class Handler>
HandlerRef<Handler> MethodRegistry::reference(Tables& tables, Handler* handler) {
  if (handler == nullptr) return {};
  std::weak_ptr<HandlerOwner>& known = tables.owners[dynamic_cast<void*>(handler)];
  std::shared_ptr<HandlerOwner> owner = known.lock();
  if (!owner) {
    owner = std::make_shared<HandlerOwner>(handler);
    known = owner;
  }
  return {std::move(owner), handler};
}

void MethodRegistry::add_if_absent(const char* name, IServerMethod* handler) {
  if (name == nullptr) return;
  auto tables = tables_.lock();
  if (tables->methods.contains(name)) return;
  tables->methods.emplace(name, reference(*tables, handler));
}

void MethodRegistry::replace(const char* name, IServerMethod* handler) {
  if (name == nullptr) return;
  MethodRef earlier;  // a built-in is deleted here, after the lock
  auto tables = tables_.lock();
  earlier = std::exchange(tables->methods[name], reference(*tables, handler));
}

void MethodRegistry::add_builtin(const char* name, std::unique_ptr<IServerMethod> handler) {
  auto tables = tables_.lock();
  MethodRef builtin = reference(*tables, handler.get());
  builtin.owner->of_library_ = true;
  builtin.owner->mark_for_deletion();
  handler.release();  // the owner deletes it
  tables->methods.emplace(name, std::move(builtin));
}

void MethodRegistry::set_all(IMethodAll* handler) {
  AllRef earlier;
  auto tables = tables_.lock();
  earlier = std::exchange(tables->all, reference(*tables, handler));
}

void MethodRegistry::set_all_if_absent(IMethodAll* handler) {
  auto tables = tables_.lock();
  if (!tables->all) tables->all = reference(*tables, handler);
}

MethodRef MethodRegistry::refer_to(IServerMethod* handler) {
  auto tables = tables_.lock();
  return reference(*tables, handler);
}

MethodRef MethodRegistry::acquire(std::string_view name) {
  auto tables = tables_.lock();
  const auto at = tables->methods.find(name);
  return tables->refuses || at == tables->methods.end() ? MethodRef() : at->second;
}

AllRef MethodRegistry::acquire_all() {
  auto tables = tables_.lock();
  return tables->refuses ? AllRef() : tables->all;
}

MethodRef MethodRegistry::acquire_or_insert(std::string_view name) {
  auto tables = tables_.lock();
  return tables->methods[std::string(name)];
}

bool MethodRegistry::contains(std::string_view name) {
  return tables_.lock()->methods.contains(name);
}

void MethodRegistry::release_all(Keeper keeper) {
  Taken taken;
  take_all(keeper, taken);
  // Without the lock, the catch-all first, then by name: an idle object is deleted here.
  taken.all = AllRef();
  for (auto& [name, method] : taken.methods) method = MethodRef();
}

void MethodRegistry::take_all(Keeper keeper, Taken& taken) {
  auto tables = tables_.lock();
  taken.methods.swap(tables->methods);
  if (keeper == Keeper::host) return;
  taken.all = std::exchange(tables->all, AllRef());
  taken.owners.swap(tables->owners);
  if (taken.all.owner) taken.all.owner->mark_for_deletion();
  for (const auto& [name, method] : taken.methods) {
    if (method.owner) method.owner->mark_for_deletion();
  }
}

void MethodRegistry::refuse() { tables_.lock()->refuses = true; }

bool MethodRegistry::refuses() const { return tables_.lock()->refuses; }

bool MethodRegistry::refuses_known(std::string_view name) const {
  auto tables = tables_.lock();
  return tables->refuses && (tables->all || tables->methods.contains(name));
}

std::size_t MethodRegistry::size() { return tables_.lock()->methods.size(); }

}  // namespace tolk
