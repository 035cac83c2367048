/// @file
/// The host's handler for one method, or its hook for one event.
///
/// Thread: a handler runs on worker threads, several calls at a time. The hooks "s_c_connect",
/// "s_c_closed" and "s_c_createport" run on the loop thread of the object and must be short. A log
/// sink ("s_c_log") runs on the thread that logs.
///
/// Owner: the library deletes registered handlers unless SetCustomReleaseEvent was called. A client
/// deletes them when its connection ends; a client that never connected deletes none.
/// IServer::close of a running server deletes them, IServer::closeasync does not. A handler that is
/// running is deleted when it returns. A log sink is never deleted.
///
/// Failure: the library catches an exception; the reply carries the values that were added before.
#pragma once

#include <tolk/export.h>

class TolkParams;

/// A handler for one method, or a hook for one event. See the head of the file.
class TOLK_API IServerMethod {
 public:
  virtual ~IServerMethod() = default;
  /// `id` is the client's id on a server, and the id of the connection on a client. `in` has the
  /// arguments and is valid during the call. `out` takes the results. An event has no `out`; only
  /// "s_c_createport" (the port) and "s_c_log" (the line) have an `in`. A peer can call the name of
  /// a hook as a method; the hook then runs as a handler.
  virtual void callback(int id, TolkParams* in, TolkParams* out) = 0;
};
