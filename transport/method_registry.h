// The handlers of one client or server, by method name.
//
// Thread: any; no handler and no handler's destructor runs under the registry's lock.
// Owner: the host, until release_all. release_all then deletes an idle handler at once, on the
// releasing thread, and a busy one when its last call returns. An object that is registered twice
// is deleted once.
// Failure: std::bad_alloc from the registering operations.
#pragma once

#include <tolk/IMethodAll.h>
#include <tolk/IServerMethod.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "transport/thread_safety.h"

namespace tolk {

// One registered object. Who holds a reference may call it.
class HandlerOwner {
 public:
  explicit HandlerOwner(IServerMethod* method) : method_(method) {}
  explicit HandlerOwner(IMethodAll* all) : all_(all) {}
  ~HandlerOwner();
  HandlerOwner(const HandlerOwner&) = delete;
  HandlerOwner& operator=(const HandlerOwner&) = delete;

  // From now on the object is deleted with its last reference.
  void mark_for_deletion() { marked_for_deletion_ = true; }
  bool marked_for_deletion() const { return marked_for_deletion_; }
  bool of_library() const { return of_library_; }

 private:
  friend class MethodRegistry;
  IServerMethod* const method_ = nullptr;
  IMethodAll* const all_ = nullptr;
  std::atomic<bool> marked_for_deletion_{false};
  bool of_library_ = false;
};

// A handler that can be called while this reference is held.
template <class Handler>
struct HandlerRef {
  std::shared_ptr<HandlerOwner> owner;
  Handler* handler = nullptr;

  explicit operator bool() const { return handler != nullptr; }
  // A handler of the library reports its lack of memory to the caller.
  bool of_library() const { return owner->of_library(); }
  Handler* operator->() const { return handler; }
};
using MethodRef = HandlerRef<IServerMethod>;
using AllRef = HandlerRef<IMethodAll>;

class MethodRegistry {
 public:
  enum class Keeper { library, host };

  // A null name is ignored. A null handler makes the name present and never called.
  void add_if_absent(const char* name, IServerMethod* handler);  // the first registration stays
  void replace(const char* name, IServerMethod* handler);        // the earlier one is not deleted
  // A handler of the library: its object is deleted with the last reference in any case.
  void add_builtin(const char* name, std::unique_ptr<IServerMethod> handler);

  void set_all(IMethodAll* handler);
  void set_all_if_absent(IMethodAll* handler);

  // A reference to `handler`, which is deleted together with other registrations of the object.
  MethodRef refer_to(IServerMethod* handler);

  // Empty after release_all or refuse, and for a null handler.
  MethodRef acquire(std::string_view name);
  AllRef acquire_all();
  // Empty too when the name is absent; then it is present with a null handler from now on.
  MethodRef acquire_or_insert(std::string_view name);
  bool contains(std::string_view name);

  // Ends all registrations. With Keeper::library their objects are deleted as described above;
  // with Keeper::host none is, and a catch-all stays registered. Takes no memory: an object must
  // be able to end without any.
  void release_all(Keeper keeper);
  // From now on acquire gives nothing; registrations stay.
  void refuse();
  bool refuses() const;
  // Whether a handler for `name`, or a catch-all, is there and is refused.
  bool refuses_known(std::string_view name) const;

  std::size_t size();

 private:
  struct Tables {
    std::map<std::string, MethodRef, std::less<>> methods;
    AllRef all;
    // The owner of each object, by the address of the whole object.
    std::map<void*, std::weak_ptr<HandlerOwner>> owners;
    bool refuses = false;
  };

  // What release_all takes out, to be destroyed without the lock.
  struct Taken {
    AllRef all;
    std::map<std::string, MethodRef, std::less<>> methods;
    std::map<void*, std::weak_ptr<HandlerOwner>> owners;
  };

  void take_all(Keeper keeper, Taken& taken);

  template <class Handler>
  static HandlerRef<Handler> reference(Tables& tables, Handler* handler);

  Guarded<Tables> tables_;
};

}  // namespace tolk
