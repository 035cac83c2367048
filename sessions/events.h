// What a session tells its side: what happened, in the order of its life. The side decides what is
// printed, called and returned.
//
// Thread: the session's loop thread, for every event. Owner: the side outlives its sessions'
// threads. Failure: an event keeps exceptions of host code to itself. One that runs out of memory
// may throw; the session then ends.
#pragma once

#include <uv.h>

#include <cstddef>
#include <string>

#include "transport/endpoint.h"
#include "transport/peer_stream.h"

namespace tolk {

class ClientEvents : public MessageSide {
 public:
  enum class SetupStep { loop, stream, address, connect };

  virtual void on_starting(const Endpoint& where) TOLK_LOOP = 0;
  virtual void on_setup_failed(const Endpoint& where, SetupStep step) TOLK_LOOP = 0;
  // A local pipe of another user: nothing was sent.
  virtual void on_server_refused(const std::string& user) TOLK_LOOP = 0;
  // The stream is connected and read; the side starts its timers, and the session becomes live.
  // False ends the attempt.
  virtual bool on_connected(uv_loop_t* loop, const Endpoint& where) TOLK_LOOP = 0;

  // The server's end of the stream is gone. The session is still live.
  virtual void on_server_gone(int id) TOLK_LOOP = 0;
  // The session is lost: posts are refused, the handles are closing.
  virtual void on_lost() TOLK_LOOP = 0;
  // close() was heard; then: posts are refused, the handles are closing.
  virtual void on_closing() TOLK_LOOP = 0;
  virtual void on_closed() TOLK_LOOP = 0;
  // The loop has run out, all handles are closed. The session ends when this returns.
  virtual void on_run_out(const Endpoint& where) TOLK_LOOP = 0;
  // Instead of all the above, when there was no memory to go on. Needs none.
  virtual void on_broken_off() TOLK_LOOP = 0;
  // Any thread: whether calls that were queued before the server went may still begin.
  virtual bool begins_calls_when_lost() const = 0;

  // How long the system may take to connect; 0: as long as it likes.
  virtual int connect_limit_ms() const { return 0; }
  // Last of a failed attempt, once all handles are closed. `status`: why it failed; UV_ETIMEDOUT
  // for the limit, UV_EACCES for a server that was refused, UV_ECANCELED when the side ended it.
  virtual void on_attempt_failed(int /*status*/) TOLK_LOOP {}
};

class ServerEvents : public MessageSide {
 public:
  virtual void on_starting(const Endpoint& where) TOLK_LOOP = 0;
  // `step`: "Bind" or "Listen".
  virtual void on_listen_failed(const char* step, int status) TOLK_LOOP = 0;
  // The same before and after those steps.
  virtual void on_loop_failed(int) TOLK_LOOP {}
  // False ends the attempt.
  virtual bool on_listening(uv_loop_t* loop, const Endpoint& where) TOLK_LOOP = 0;

  // A connection failed before it could be accepted.
  virtual void on_connection_error() TOLK_LOOP = 0;
  virtual void on_connecting(int id) TOLK_LOOP = 0;
  virtual void on_accept_failed() TOLK_LOOP = 0;
  virtual void on_accepted(int id, bool is_tcp, int count) TOLK_LOOP = 0;
  // A local pipe of another user: nothing was read.
  virtual void on_client_refused(const std::string& user) TOLK_LOOP = 0;
  virtual void on_first_read(int id) TOLK_LOOP = 0;
  // A connection ends; then it is off the list. `had_read`: it has sent something.
  virtual void on_client_gone(int id, int status) TOLK_LOOP = 0;
  virtual void on_client_left(int id, bool had_read) TOLK_LOOP = 0;

  // A call of the host is about to go out. False refuses it.
  virtual bool on_delivery() TOLK_LOOP = 0;

  // closeasync() was heard; then: posts are refused, the handles are closing.
  virtual void on_closing_async() TOLK_LOOP = 0;
  virtual void on_closed_async() TOLK_LOOP = 0;

  // close() is carried out: nothing is closed yet; then: all handles are closing, and the address
  // is free.
  virtual void on_closing() TOLK_LOOP {}
  virtual void on_closed() TOLK_LOOP {}
  // There was no memory to go on with a session that was live. Needs none.
  virtual void on_broken_off() TOLK_LOOP {}

  // Whether starting on TCP removes a file that is named like the port.
  virtual bool removes_port_file() const { return true; }
  // Whether a connection that has ended is kept until the session's end, so that its id never comes
  // back. Only a side that keeps them may let workers run the calls of a stream.
  virtual bool keeps_connections() const { return true; }
  // Whether a connection may come to `count` others. One that may not is closed at once.
  virtual bool may_accept(std::size_t /*count*/) TOLK_LOOP { return true; }
};

}  // namespace tolk
