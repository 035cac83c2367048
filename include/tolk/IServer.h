/// @file
/// A server: listens on a local pipe or a TCP port, answers its clients and calls them.
///
/// Thread: any operation from any thread, but for ListenPipe, ListenTcp4, ListenTcp6 and run: the
/// thread that listens becomes the loop thread, and only it can run.
///
/// Owner: CreateServer makes it, DestroyServer frees it.
///
/// Failure: false or null, and a line in the log. No exception comes out.
///
/// Units: time-outs in milliseconds, unsigned 32-bit. Unlike on a client, 0 ends at the next sweep.
#pragma once

#include <tolk/export.h>

class IMethodAll;
class IServerMethod;
class TolkParams;

/// A server of the plain interface. See the head of the file.
class TOLK_API IServer {
 public:
  /// Listens on a local pipe, on the calling thread, which has to call `run` then. For hosts with a
  /// loop thread of their own. True if it listens. A pipe's name is a decimal number from 0 to
  /// 2147483647. What stands behind the digits is ignored, what has none counts as 0, and a larger
  /// one as the largest: no failure tells of it.
  virtual bool ListenPipe(const char* port) = 0;
  /// Start a loop thread and wait until it listens; the result is isok().
  virtual bool InitTolkServer(const char* port) = 0;
  /// @{
  /// As ListenPipe, on TCP. The host is a numeric address. A port is read as a pipe's name is, and
  /// taken modulo 65536; for 0 the system chooses one.
  virtual bool ListenTcp4(const char* host, const char* port) = 0;
  virtual bool ListenTcp6(const char* host, const char* port) = 0;
  /// @}
  /// @{
  /// As InitTolkServer, on TCP.
  virtual bool InitTolkServerTcp4(const char* host, const char* port) = 0;
  virtual bool InitTolkServerTcp6(const char* host, const char* port) = 0;
  /// @}
  /// Serves until the server is closed, on the thread that listens; on another it returns at once.
  /// Always true.
  virtual bool run() = 0;

  /// Period of the time-out sweep in milliseconds; below 1 means 100.
  virtual void SetTimeoutStep(int ms) = 0;
  virtual bool isok() = 0;  ///< listening
  /// @{
  /// Both always say true. `close` releases the handlers, `closeasync` (pipe servers) keeps them.
  virtual bool close() = 0;
  virtual bool closeasync() = 0;
  /// @}

  /// Call a method of one client. The result belongs to the server and is valid until
  /// ClearRetvalMem or the server's end. On purpose: when no answer came, it is the last result of
  /// the same `threadid`, if there is one; tell calls apart by distinct ids.
  virtual TolkParams* SendMsg(int clientid, const char* name, TolkParams* params, int threadid,
                              int timeout) = 0;
  /// The same without waiting for an answer; always null.
  virtual TolkParams* PostMsg(int clientid, const char* name, TolkParams* params, int threadid) = 0;

  /// Verbosity of the server's lines: 0 silences connection events. False when `text` is empty.
  virtual bool log(char* text, int level) = 0;
  /// Register handlers before starting. A later handler of a name replaces the earlier one, which
  /// is then the host's. "s_c_log" installs a sink for the log lines, which stays the host's.
  virtual void method(const char* name, IServerMethod* m) = 0;
  /// Takes the calls of all names that have no handler.
  virtual void methodall(IMethodAll* m) = 0;
  virtual int GetPort() = 0;         ///< as it was asked for
  virtual int GetClientCount() = 0;  ///< clients that have sent something and are connected
  virtual bool IsPipe() = 0;         ///< not TCP
  /// The host keeps its handlers: the server never deletes them.
  virtual void SetCustomReleaseEvent() = 0;
  /// Piece size of large data in bytes, for the whole process; 32768 at first.
  virtual void SetBigfileBufferSize(int size) = 0;
  /// Frees every result that calls of this server returned.
  virtual void ClearRetvalMem() = 0;
};
