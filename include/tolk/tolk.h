/// @file
/// All of the plain interface, and its four factory functions.
#pragma once

#include <tolk/IClient.h>
#include <tolk/IMethodAll.h>
#include <tolk/IServer.h>
#include <tolk/IServerMethod.h>
#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>
#include <tolk/export.h>

extern "C" {

/// Returns a client that is not connected, or null without memory.
TOLK_API IClient* CreateClient();
/// Waits 300 ms, closes the client if it is connected, and frees it. The close deletes the handlers
/// unless SetCustomReleaseEvent was called. Null is ignored. An operation that is under way on
/// another thread returns null or false; the host must not begin one afterwards.
TOLK_API void DestroyClient(IClient* client);

/// Returns a server that is not started, or null without memory.
TOLK_API IServer* CreateServer();
/// Stops the server and frees it. Null is ignored. If IsPipe() is true, it calls `closeasync`,
/// which takes 200 ms on a running server and deletes no handlers. Otherwise it calls `close`,
/// which deletes the handlers of a running server unless SetCustomReleaseEvent was called. The log
/// sink is never deleted, and it is not called any more when DestroyServer has returned. A handler
/// that is running may return later.
TOLK_API void DestroyServer(IServer* server);

}  // extern "C"
