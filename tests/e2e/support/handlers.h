// Handlers of methods and events, from lambdas.
//
//   server->method("sum", on_call([](int, TolkParams* in, TolkParams* out) { ... }, &deleted));
//
// Owner: the object that they are registered with, as always; a test that counts deletions passes a
// Counter. A lambda that the library may still run when the test ends captures by value.
#pragma once

#include <tolk/tolk.h>

#include <functional>
#include <string>
#include <utility>

#include "tests/e2e/support/waiting.h"

namespace tolk::test {

using CallFunction = std::function<void(int id, TolkParams* in, TolkParams* out)>;
using AnyCallFunction =
    std::function<void(const char* name, int id, TolkParams* in, TolkParams* out)>;

// A pipe server that is destroyed gives its handlers back to the host, which in most tests has
// forgotten them. What a test expects to be deleted it counts; leak checkers find the rest here.
class KeptReachable {
 protected:
  KeptReachable();
  ~KeptReachable();
  KeptReachable(const KeptReachable&) = delete;
  KeptReachable& operator=(const KeptReachable&) = delete;
};

class FunctionHandler : public IServerMethod, KeptReachable {
 public:
  explicit FunctionHandler(CallFunction function, Counter deleted = {})
      : function_(std::move(function)), deleted_(std::move(deleted)) {}
  ~FunctionHandler() override { deleted_.add(); }
  void callback(int id, TolkParams* in, TolkParams* out) override { function_(id, in, out); }

 private:
  const CallFunction function_;
  Counter deleted_;
};

class FunctionCatchAll : public IMethodAll, KeptReachable {
 public:
  explicit FunctionCatchAll(AnyCallFunction function, Counter deleted = {})
      : function_(std::move(function)), deleted_(std::move(deleted)) {}
  ~FunctionCatchAll() override { deleted_.add(); }
  void callback(const char* name, int id, TolkParams* in, TolkParams* out) override {
    function_(name, id, in, out);
  }

 private:
  const AnyCallFunction function_;
  Counter deleted_;
};

inline IServerMethod* on_call(CallFunction function, Counter deleted = {}) {
  return new FunctionHandler(std::move(function), std::move(deleted));
}

inline IMethodAll* on_any_call(AnyCallFunction function, Counter deleted = {}) {
  return new FunctionCatchAll(std::move(function), std::move(deleted));
}

// A handler that answers one string.
inline IServerMethod* answering(std::string text, Counter deleted = {}) {
  return on_call([text](int, TolkParams*, TolkParams* out) { out->AddString(text.c_str()); },
                 std::move(deleted));
}

// A handler that counts its calls and answers nothing; for events too.
inline IServerMethod* counting(Counter calls, Counter deleted = {}) {
  return on_call([calls](int, TolkParams*, TolkParams*) mutable { calls.add(); },
                 std::move(deleted));
}

// A handler that stays in its call until the test opens the latch.
inline IServerMethod* blocking(Gate gate, Counter deleted = {}) {
  return on_call([gate](int, TolkParams*, TolkParams*) mutable { gate.pass(); },
                 std::move(deleted));
}

// The string at a position of the result of a call; "" if there is no such string.
inline std::string string_at(TolkParams* block, int position) {
  TolkValue* const value = block == nullptr ? nullptr : block->GetValue(position);
  return value != nullptr && value->IsString() ? value->GetString() : "";
}

}  // namespace tolk::test
