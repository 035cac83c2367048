/// @file
/// A server. It listens on a local pipe or a TCP port, answers its clients and calls them.
///
/// Thread: every operation is safe on any thread. A thread that calls ListenPipe, ListenTcp4 or
/// ListenTcp6 becomes the loop thread, and only it can call `run`. In a hook on the server's own
/// loop thread, calls are sent and return at once, a start returns isok(), and a listen returns
/// false.
///
/// Owner: CreateServer makes a server, DestroyServer frees it.
///
/// Failure: false or null, and usually a line in the log. No operation throws.
///
/// Units: a timeout is in milliseconds, read as an unsigned 32-bit number. Unlike on a client, 0
/// means that the call ends at the next sweep.
#pragma once

#include <tolk/export.h>

class IMethodAll;
class IServerMethod;
class TolkParams;

/// A server of the plain interface. See the head of the file.
class TOLK_API IServer {
 public:
  /// Listens on a local pipe. The calling thread becomes the loop thread and must then call `run`.
  /// Returns true if the server listens. The text is the name of the pipe as it is: "05000" and
  /// "5000" are different pipes. A stopped server cannot listen again.
  virtual bool ListenPipe(const char* port) = 0;
  /// Starts a loop thread, waits until it listens or has failed, and returns isok(). Unlike
  /// ListenPipe, it converts the text to a number and uses the decimal form of the number as the
  /// name: "05000" and "5000x" listen on pipe 5000. A text without leading digits reads as 0, and a
  /// number above 2147483647 as 2147483647.
  virtual bool InitTolkServer(const char* port) = 0;
  /// @{
  /// Like ListenPipe, on TCP. `host` is a numeric address. `port` is read as a number, as by
  /// InitTolkServer, and taken modulo 65536; for 0 the system chooses a port. A file in the current
  /// directory that is named like `port` is deleted.
  virtual bool ListenTcp4(const char* host, const char* port) = 0;
  virtual bool ListenTcp6(const char* host, const char* port) = 0;
  /// @}
  /// @{
  /// Like InitTolkServer, on TCP.
  virtual bool InitTolkServerTcp4(const char* host, const char* port) = 0;
  virtual bool InitTolkServerTcp6(const char* host, const char* port) = 0;
  /// @}
  /// Serves until the server is closed. On a thread other than the listening one it returns at
  /// once. Always returns true.
  virtual bool run() = 0;

  /// Sets the period of the timeout sweep in milliseconds. A value below 1 means 100.
  virtual void SetTimeoutStep(int ms) = 0;
  /// Returns true while the server listens.
  virtual bool isok() = 0;
  /// Closes the connections and the listener, and waits for that up to 1 s. First deletes the
  /// handlers, the one of `methodall` included, unless SetCustomReleaseEvent was called; a handler
  /// that is running is deleted when it returns. Always returns true. A stopped server cannot start
  /// again. Calls to clients that wait in another thread are not woken.
  virtual bool close() = 0;
  /// Asks the loop thread of a running pipe server to close, and sleeps 200 ms. Deletes no
  /// handlers. On TCP it does not close: it sleeps and logs "bad close". Always returns true.
  virtual bool closeasync() = 0;

  /// Calls a method of one client and waits for the result. The server owns the result, which is
  /// valid until ClearRetvalMem or the end of the server. One thread at a time may read a result:
  /// reading it from several threads at once is not supported. On purpose: without an answer, the
  /// result is the last one of the same `threadid`, or null; use a separate id for each call. The
  /// client must have sent something before. A client does not answer for a method that it lacks.
  virtual TolkParams* SendMsg(int clientid, const char* name, TolkParams* params, int threadid,
                              int timeout) = 0;
  /// Calls a method without waiting for its result. Returns when the frame has been written to the
  /// stream or refused. The result is always null.
  virtual TolkParams* PostMsg(int clientid, const char* name, TolkParams* params, int threadid) = 0;

  /// Like IClient::log.
  virtual bool log(char* text, int level) = 0;
  /// Registers a handler; register handlers before the start. A later handler of the same name
  /// replaces the earlier one, which then belongs to the host. The name "s_c_log" sets the log
  /// sink, which the host keeps.
  virtual void method(const char* name, IServerMethod* m) = 0;
  /// Sets the handler for all names without a handler.
  virtual void methodall(IMethodAll* m) = 0;
  /// Returns the number that the start was given, also when the system chose the port. 0 before.
  virtual int GetPort() = 0;
  /// Returns the number of clients that have sent at least one chunk of bytes and whose connection
  /// has not ended. In the hook "s_c_closed" the client still counts. A close of the server does
  /// not reset the number.
  virtual int GetClientCount() = 0;
  /// Returns true from a start by InitTolkServer on. It is false before a start, and after
  /// ListenPipe alone. A start by InitTolkServerTcp4 or InitTolkServerTcp6 sets it to true until
  /// the listening begins, which sets it to false.
  virtual bool IsPipe() = 0;
  /// The host keeps the handlers, and the server never deletes them.
  virtual void SetCustomReleaseEvent() = 0;
  /// Sets the piece size of large data in bytes, for the whole process. The default is 32768.
  virtual void SetBigfileBufferSize(int size) = 0;
  /// Frees every result that calls of this server have returned.
  virtual void ClearRetvalMem() = 0;
};
