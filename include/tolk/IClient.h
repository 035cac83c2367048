/// @file
/// One connection to a server, with calls in both directions.
///
/// Thread: every operation is safe on any thread. An operation does not wait in a hook on the
/// client's own loop thread: a call is sent and returns at once, and a connect returns isok(),
/// which is still true in the hook "s_c_closed".
///
/// Owner: CreateClient makes a client, DestroyClient frees it.
///
/// Failure: false or null, and usually a line on standard output. No operation throws.
///
/// Units: a timeout is in milliseconds, read as an unsigned 32-bit number; 0 means no limit. A
/// timeout is noticed at the first sweep after it; sweeps run every 100 ms, the first 500 ms after
/// the connect.
#pragma once

#include <tolk/export.h>

class IMethodAll;
class IServerMethod;
class TolkParams;

/// A client of the plain interface. See the head of the file.
class TOLK_API IClient {
 public:
  virtual ~IClient() = default;

  /// @{
  /// Connect over a local pipe, TCP on IPv4 or TCP on IPv6, and check the server's version. Return
  /// true if the client is connected; a connected client returns true at once. The connect waits
  /// for the transport, and then up to 10 s for the version check. The bool is not used.
  ///
  /// A pipe name is used as it is, so it must equal the server's name, which usually is a decimal
  /// number. `host` is a numeric address. `port` is a decimal number, taken modulo 65536; a text
  /// without leading digits reads as 0.
  ///
  /// A client that connects again has neither handlers nor timeouts. Make a new client for each
  /// connection.
  virtual bool InitTolkClient(const char* name, bool) = 0;
  virtual bool InitTolkClientTcp4(const char* host, const char* port, bool) = 0;
  virtual bool InitTolkClientTcp6(const char* host, const char* port, bool) = 0;
  /// @}
  /// On purpose without effect: the period of a client's sweep is always 100 ms.
  virtual void SetTimeoutStep(int step) = 0;
  /// Returns true while the client is connected.
  virtual bool isok() = 0;
  /// Ends the connection and waits until the loop thread has ended it. The waiting calls of all
  /// clients of the process return, except SendMsgEx. The client then deletes its handlers unless
  /// SetCustomReleaseEvent was called; a handler that is running is deleted when it returns. On the
  /// loop thread, `close` does not wait.
  virtual void close() = 0;

  /// @{
  /// Call a method of the server and wait for the result. Return null when no answer came before
  /// the timeout, or when the connection of any client of the process ended.
  ///
  /// `params` may be null, and the caller keeps it. `threadid` selects the slot of the result; 0
  /// means a slot of the calling thread. The client owns the result. It is valid until the next
  /// call with the same slot, ClearRetvalMem, or the end of the client. A later reply for the slot,
  /// for instance a late one, can replace the values in the block. One thread at a time may read a
  /// result: reading it from several threads at once is not supported.
  ///
  /// SendMsg and PostMsg run one at a time in the process. SendMsgFast does not wait for them.
  virtual TolkParams* SendMsg(const char* name, TolkParams* params, int threadid, int timeout) = 0;
  virtual TolkParams* SendMsgFast(const char* name, TolkParams* params, int threadid,
                                  int timeout) = 0;
  /// @}
  /// @{
  /// Call a method without waiting for its result. Return when the frame has been written to the
  /// stream or refused; the result is always null. PostMsg waits for its turn like SendMsg.
  virtual TolkParams* PostMsg(const char* name, TolkParams* params, int threadid) = 0;
  virtual TolkParams* PostMsgFast(const char* name, TolkParams* params, int threadid) = 0;
  /// @}
  /// A call whose arguments and result may be large. It sends the arguments in pieces, empties
  /// `params`, and waits without a timeout until the result is complete or a client of the process
  /// loses its server. `close` of this client does not wake it. One runs at a time in the process.
  /// The last parameter is not used. The result is valid until the next SendMsgEx with the same
  /// slot; `threadid` 0 means the system's id of the calling thread.
  virtual TolkParams* SendMsgEx(const char* name, TolkParams* params, int threadid, int) = 0;

  /// Sets the verbosity: level 0 suppresses connection events, level 1 (the default) prints them.
  /// `text` has no other use than the return value, which is false when it is null or empty; no
  /// file is opened. The first call calls std::ios_base::sync_with_stdio(false); after it, two
  /// threads must not use std::cout at the same time.
  virtual bool log(char* text, int level) = 0;
  /// @{
  /// Register handlers before connecting. A later handler of the same name is ignored. The client
  /// never calls the handler of `methodall`.
  virtual void method(const char* name, IServerMethod* handler) = 0;
  virtual void methodall(IMethodAll* handler) = 0;
  /// @}
  /// The host keeps the handlers, and the client never deletes them.
  virtual void SetCustomReleaseEvent() = 0;
  /// @{
  /// The piece size of large data in bytes, for the whole process. The default is 32768.
  virtual void SetBigfileBufferSize(int size) = 0;
  virtual int GetBigfileBufferSize() = 0;
  /// @}
  /// Frees every result that calls of this client have returned.
  virtual void ClearRetvalMem() = 0;
};
