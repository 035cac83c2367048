/// @file
/// The host's handler of every name that has no handler of its own. Only servers call it.
///
/// Thread, owner and failure: as IServerMethod.
#pragma once

#include <tolk/export.h>

class TolkParams;

/// A handler of every name that has no handler of its own. See the head of the file.
class TOLK_API IMethodAll {
 public:
  virtual ~IMethodAll() = default;
  /// As IServerMethod::callback; `name` is the method that was called.
  virtual void callback(const char* name, int id, TolkParams* in, TolkParams* out) = 0;
};
