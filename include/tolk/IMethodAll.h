/// @file
/// The host's handler for every method name without a handler. Only servers call it.
///
/// Thread, owner and failure: as for IServerMethod.
#pragma once

#include <tolk/export.h>

class TolkParams;

/// A handler for every method name without a handler. See the head of the file.
class TOLK_API IMethodAll {
 public:
  virtual ~IMethodAll() = default;
  /// Like IServerMethod::callback. `name` is the method. The server adds the text "no event: NAME"
  /// after the values that the handler adds to `out`.
  virtual void callback(const char* name, int id, TolkParams* in, TolkParams* out) = 0;
};
