/// @file
/// Everything that a host includes, and the four factories.
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

/// A client that is not connected yet; null when there is no memory.
TOLK_API IClient* CreateClient();
/// Waits 300 ms, closes a connected client and frees it. Null is ignored.
TOLK_API void DestroyClient(IClient* client);

/// A server that is not started yet; null when there is no memory.
TOLK_API IServer* CreateServer();
/// Stops the server (`closeasync` for a pipe, `close` for TCP) and frees it. Null is ignored.
TOLK_API void DestroyServer(IServer* server);

}  // extern "C"
