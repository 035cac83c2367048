// The frames that wait to be written to one stream, and the only way by which they get there.
//
// A frame is sent at once by the thread that adds it, where the system can do that. What others add
// meanwhile is sent by the same thread. What the system does not take is queued, and the loop
// thread writes many frames with one uv_write:
//
//   any thread                               loop thread
//   add: the system takes all that waits
//   add, while another thread sends -> queued
//   add: the system takes a part
//   -> queued_first; post a task             flush: uv_write of all that waits
//   add -> queued
//                                            written: uv_write of what came meanwhile
//
// Thread: any, but where TOLK_LOOP says otherwise. One lock gives the order of all frames. One
// thread at a time sends or writes; a send does not block, and is without the lock.
// Owner: the queue owns its frames. It outlives the stream's close callback, before which libuv
// ends a write under way.
// Close comes before the stream's uv_close, and waits for a send under way: no thread sends on a
// descriptor that the system may have given to somebody else.
// Failure: a write that fails is told to the owner's on_write_failed, on the loop thread, which
// then closes the queue and the stream. A thread that sends itself leaves an error to be found
// there. Adding allocates nothing.
#pragma once

#include <uv.h>

#include <condition_variable>
#include <cstddef>

#include "platform/direct_send.h"
#include "transport/frame.h"
#include "transport/frame_list.h"
#include "transport/thread_safety.h"

namespace tolk {

enum class Sent {
  written,
  queued,
  queued_first,  // the caller has the loop thread flush: nobody else does
  full,          // the bound is reached
  closed,
};

enum class Send {
  now,
  soon,  // with what comes next, or by the loop thread
};

enum class Room { there, none_in_time, closed };

// What a queue tells its owner.
class OutgoingEvents {
 public:
  virtual ~OutgoingEvents() = default;

  // A write has ended, and the queue has fewer bytes.
  virtual void on_written() TOLK_LOOP {}
  // The stream cannot go on. What was being written is lost.
  virtual void on_write_failed(int status) TOLK_LOOP = 0;
};

class OutgoingQueue {
 public:
  static constexpr std::size_t kMostFrames = 64;                   // of one write
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20;  // the same, or one frame
  static constexpr std::size_t kMostBuffers = 192;  // the same; those of any frame fit
  static_assert(kMostBuffers >= Frame::kMostBuffers);
  static constexpr int kMostSends = 8;  // of one thread in a row
  static constexpr int kForever = -1;

  // `bound`: how many bytes that count may wait. One frame of any size may wait alone.
  OutgoingQueue(OutgoingEvents& owner, std::size_t bound) : owner_(owner), bound_(bound) {}
  OutgoingQueue(const OutgoingQueue&) = delete;
  OutgoingQueue& operator=(const OutgoingQueue&) = delete;

  // The stream is connected. What was added before goes out.
  void open(uv_stream_t* stream) TOLK_LOOP;
  // `counts`: the frame is held to the bound. Only a frame that is queued is taken.
  Sent add(Frame&& frame, bool counts, Send when = Send::now);
  void flush() TOLK_LOOP;
  // Until a frame of `size` bytes in all that counts has room. Another thread may take that.
  Room wait_for_room(std::size_t size, int limit_ms);
  // Until every frame is written; false when the limit passes or the queue is closed before.
  bool wait_until_empty(int limit_ms);
  // Not yet written, in all.
  std::size_t bytes() const { return state_.lock()->bytes; }
  // Drops what waits and refuses all that comes. Has no effect the second time.
  void close() TOLK_LOOP;

 private:
  struct State {
    int descriptor = platform::kNoDescriptor;
    bool closed = false;
    bool sending = false;      // a thread sends what waits
    bool writing = false;      // libuv has a write
    bool is_full = false;      // the system takes no more: libuv writes
    bool flush_is_due = true;  // somebody calls flush; before open, open does
    FrameList waiting;
    std::size_t first_sent = 0;  // of the first that waits: its bytes that are out already
    std::size_t bytes = 0;       // of all frames, without those that are out
    std::size_t counted = 0;     // of those that count
  };
  struct Batch;

  static void on_written_cb(uv_write_t* request, int status);
  static bool may_send(const State& state);
  void send_waiting(Guarded<State>::Locked& state, FrameList& sent);
  static void take_sent(State& state, std::size_t taken, FrameList& sent);
  bool has_room(const State& state, std::size_t size) const;
  bool begin_batch(Batch& batch) TOLK_LOOP;
  void on_written(int status) TOLK_LOOP;
  void end_batch() TOLK_LOOP;
  template <class Done>
  bool wait(int limit_ms, Done done);

  OutgoingEvents& owner_;
  const std::size_t bound_;
  Guarded<State> state_;
  std::condition_variable changed_;
  uv_stream_t* stream_ TOLK_GUARDED_BY(loop_role) = nullptr;
  uv_write_t request_ TOLK_GUARDED_BY(loop_role){};
  bool is_wide_ TOLK_GUARDED_BY(loop_role) = false;
  FrameList writing_ TOLK_GUARDED_BY(loop_role);
  std::size_t writing_bytes_ TOLK_GUARDED_BY(loop_role) = 0;
  std::size_t writing_counted_ TOLK_GUARDED_BY(loop_role) = 0;
};

}  // namespace tolk
