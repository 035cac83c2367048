/// @file
/// One connection to a server: calls in both directions.
///
/// Thread: any operation from any thread. From a hook on the client's own loop thread nothing
/// waits: a call is sent and returns at once, a connect returns false.
///
/// Owner: CreateClient makes it, DestroyClient frees it.
///
/// Failure: false or null, and a line on standard output. No exception comes out.
///
/// Units: every time-out is in milliseconds, as an unsigned 32-bit number; 0 means no limit.
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
  /// Connect and check the server's version; wait until that is decided: true if it is connected.
  /// Over a local pipe, TCP on IPv4, TCP on IPv6. The bool is not used. A pipe's name is the
  /// decimal number that its server has, without anything before or behind it: nobody listens on
  /// another. The host is a numeric address. A port is a decimal number; what has no digits counts
  /// as 0, and ports are taken modulo 65536.
  virtual bool InitTolkClient(const char* name, bool) = 0;
  virtual bool InitTolkClientTcp4(const char* host, const char* port, bool) = 0;
  virtual bool InitTolkClientTcp6(const char* host, const char* port, bool) = 0;
  /// @}
  /// On purpose without effect: the time-out step of a client is always 100 ms.
  virtual void SetTimeoutStep(int step) = 0;
  virtual bool isok() = 0;  ///< connected
  /// Ends the connection and waits for its loop; waiting calls of the whole process return.
  virtual void close() = 0;

  /// @{
  /// Call a method of the server. `params` may be null and stays the caller's. `threadid` names the
  /// slot that the result is kept in; 0 means the calling thread's own. The result belongs to the
  /// client and is valid until the next call with the same slot, ClearRetvalMem or the client's
  /// end; null when no answer came in time. SendMsg runs one at a time in the whole process;
  /// SendMsgFast does not wait for others.
  virtual TolkParams* SendMsg(const char* name, TolkParams* params, int threadid, int timeout) = 0;
  virtual TolkParams* SendMsgFast(const char* name, TolkParams* params, int threadid,
                                  int timeout) = 0;
  /// @}
  /// @{
  /// The same without waiting for an answer; always null.
  virtual TolkParams* PostMsg(const char* name, TolkParams* params, int threadid) = 0;
  virtual TolkParams* PostMsgFast(const char* name, TolkParams* params, int threadid) = 0;
  /// @}
  /// A call whose arguments and result may be large; empties `params`, waits without a time-out.
  virtual TolkParams* SendMsgEx(const char* name, TolkParams* params, int threadid, int) = 0;

  /// Verbosity of the client's lines: 0 silences connection events. False when `text` is empty.
  virtual bool log(char* text, int level) = 0;
  /// @{
  /// Register handlers before connecting. The first handler of a name stays.
  virtual void method(const char* name, IServerMethod* handler) = 0;
  virtual void methodall(IMethodAll* handler) = 0;
  /// @}
  /// The host keeps its handlers: the client never deletes them.
  virtual void SetCustomReleaseEvent() = 0;
  /// @{
  /// Piece size of large data in bytes, for the whole process; 32768 at first.
  virtual void SetBigfileBufferSize(int size) = 0;
  virtual int GetBigfileBufferSize() = 0;
  /// @}
  /// Frees every result that calls of this client returned.
  virtual void ClearRetvalMem() = 0;
};
