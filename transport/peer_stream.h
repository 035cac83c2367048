// One connected stream: a client has one, a server one for each connection.
//
// It reads, cuts the bytes into frames, gives these to the side, and writes frames. What differs
// between a client and a server, and between one kind of side and another, is asked of two
// interfaces: the session that owns the stream and the side above it.
//
// Thread: the loop thread, except id(), which any thread may call.
// Owner: the session, which keeps the storage until its loop is closed.
// Failure: a stream that cannot go on (its peer left or broke the framing, a read failed, no memory
// for a message or for a reply) tells its session by on_stream_end.
#pragma once

#include <uv.h>

#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "params/shared_bytes.h"
#include "transport/frame.h"
#include "transport/frame_reader.h"
#include "transport/read_block.h"
#include "transport/stream_handle.h"
#include "transport/stream_rules.h"
#include "transport/thread_safety.h"
#include "transport/work_item.h"

namespace tolk {

class PeerStream;

// What a side keeps with a stream of its own.
struct StreamUser {
  virtual ~StreamUser() = default;
};

// What a side does with the messages of its peers.
class MessageSide : public std::enable_shared_from_this<MessageSide> {
 public:
  virtual ~MessageSide() = default;

  virtual void on_message(PeerStream& stream, SharedBytes payload) TOLK_LOOP = 0;
  virtual void on_reply_refused() TOLK_LOOP {}
  // What the streams of this side are held to.
  virtual StreamRules stream_rules() const { return {}; }
};

// What a stream asks of its session.
class StreamOwner : public std::enable_shared_from_this<StreamOwner> {
 public:
  virtual ~StreamOwner() = default;

  virtual MessageSide& side() = 0;
  virtual uv_loop_t* loop() TOLK_LOOP = 0;
  // Lets a worker run a call.
  virtual void begin_work(std::unique_ptr<WorkItem> call) TOLK_LOOP = 0;
  // Debug builds: whether this is the thread of the loop.
  virtual void check_loop_thread() const TOLK_ASSERTS(loop_role) = 0;
  // The stream has read something, or its end, for the first time.
  virtual void on_first_read(PeerStream&) TOLK_LOOP {}
  virtual void on_stream_end(PeerStream& stream, int status) TOLK_LOOP = 0;
  // Any thread: whether messages are still taken, and whether a queued call may begin.
  virtual bool takes_messages() const = 0;
  virtual bool begins_calls() const = 0;

  // A peer has sent something. A loop that hears from peers may stay awake.
  void note_sign_of_life() TOLK_LOOP { heard_ = true; }
  ReadBlock& read_block() TOLK_LOOP { return read_block_; }

 protected:
  bool heard_ TOLK_GUARDED_BY(loop_role) = false;

 private:
  ReadBlock read_block_ TOLK_GUARDED_BY(loop_role);
};

class PeerStream {
 public:
  explicit PeerStream(StreamOwner& owner) : owner_(owner), reader_(new FrameReader) {}
  PeerStream(const PeerStream&) = delete;
  PeerStream& operator=(const PeerStream&) = delete;

  int init(bool is_tcp) TOLK_LOOP;
  int start_reading() TOLK_LOOP;
  // What the system has already given is still handed on. start_reading goes on.
  void stop_reading() TOLK_LOOP { uv_read_stop(&handle_.stream); }
  // After "write error", a negative status.
  int write(Frame frame) TOLK_LOOP;
  void write_reply(Frame reply) TOLK_LOOP;
  // The server closes: what the peer still sends and late replies to it are dropped silently.
  void mute() TOLK_LOOP { muted_ = true; }
  bool is_muted() const TOLK_LOOP { return muted_; }
  // Ends the writing side once all frames are out; the reading side goes on.
  int shut_down_writing(uv_shutdown_cb done) TOLK_LOOP;
  void close() TOLK_LOOP { close_handle(&handle_.handle); }
  // The stream has ended, perhaps while it hands on messages: its partial frame goes.
  void drop_pending() TOLK_LOOP {
    has_ended_ = true;
    reader_.reset();
  }
  bool is_closing() const TOLK_LOOP { return uv_is_closing(&handle_.handle) != 0; }
  // No memory to answer the peer: the stream cannot go on.
  void end_unanswered() TOLK_LOOP;

  // The low 32 bits of the handle's address: what handlers and hooks see as the peer's id.
  int id() const;
  bool has_read() const TOLK_LOOP { return has_read_; }
  StreamHandle& handle() TOLK_LOOP { return handle_; }
  StreamOwner& owner() { return owner_; }
  // The side's; a stream only keeps it.
  const std::shared_ptr<StreamUser>& user() const TOLK_LOOP { return user_; }
  void set_user(std::shared_ptr<StreamUser> user) TOLK_LOOP { user_ = std::move(user); }

 private:
  static void on_read_cb(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer);

  void on_read(ssize_t count, const char* bytes) TOLK_LOOP;
  static void allocBufferCb(uv_handle_t* handle, std::size_t suggested_bytes, uv_buf_t* buffer);
  std::span<char> room() TOLK_LOOP;
  void feed(std::string_view bytes) TOLK_LOOP;

  StreamOwner& owner_;
  StreamHandle handle_;
  uv_shutdown_t shutdown_{};
  std::unique_ptr<FrameReader> reader_;  // null while it feeds
  std::shared_ptr<StreamUser> user_;
  bool has_read_ = false;
  bool has_ended_ = false;
  bool muted_ = false;
  bool is_wide_ = false;
};

}  // namespace tolk
