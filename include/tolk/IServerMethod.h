/// @file
/// The host's handler of one method name, or of one event.
///
/// Thread: calls run on worker threads, several at a time; events ("s_c_connect", "s_c_closed",
/// "s_c_createport") run on the loop thread of the object and must be short; a log sink runs on
/// whichever thread logs.
///
/// Owner: the library deletes a registered handler when the object ends, unless
/// SetCustomReleaseEvent was called; a handler that is busy then is deleted when it returns.
///
/// Failure: an exception ends in the library; the reply carries what was added so far.
#pragma once

#include <tolk/export.h>

class TolkParams;

/// A handler of one method name, or of one event. See the head of the file.
class TOLK_API IServerMethod {
 public:
  virtual ~IServerMethod() = default;
  /// `id`: on a server the client's id, on a client the id of its own connection.
  /// `in`: the arguments, valid during the call. `out`: takes the results; null for events.
  virtual void callback(int id, TolkParams* in, TolkParams* out) = 0;
};
