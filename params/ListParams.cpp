#include <tolk/ListParams.h>

#include <memory>
#include <vector>

#include "params/value_access.h"

using Access = TolkValueAccess;

ListParams::ListParams() = default;

ListParams::ListParams(const ListParams& other) : elements_(other.elements_) {
  Access::retain_all(elements_);
}

ListParams& ListParams::operator=(const ListParams& other) {
  // Retain before release: the two lists may share elements, or be the same list.
  std::vector<TolkValue*> elements = other.elements_;
  Access::retain_all(elements);
  elements_.swap(elements);
  Access::release_all(elements);
  return *this;
}

ListParams::~ListParams() { Access::release_all(elements_); }

void ListParams::AddBool(bool v) { Access::adopt(elements_, std::make_unique<TolkValue>(v)); }
void ListParams::AddInt(int v) { Access::adopt(elements_, std::make_unique<TolkValue>(v)); }
void ListParams::AddDouble(double v) { Access::adopt(elements_, std::make_unique<TolkValue>(v)); }

void ListParams::AddString(const char* data, long len) {
  Access::adopt(elements_, std::make_unique<TolkValue>(data, len, TolkValue::String));
}

void ListParams::AddStream(const char* data, long len) {
  Access::adopt(elements_, std::make_unique<TolkValue>(data, len, TolkValue::Stream));
}
