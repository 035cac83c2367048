// The host's handler of every name that has no handler of its own. Only servers call it.
// Thread, owner and failure: as IServerMethod.
#pragma once

#include <tolk/export.h>

class TolkParams;

class TOLK_API IMethodAll {
 public:
  virtual ~IMethodAll() = default;
  virtual void callback(const char* name, int id, TolkParams* in, TolkParams* out) = 0;
};
