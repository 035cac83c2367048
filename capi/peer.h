// One connected peer: a client has one, a server one for each client that has sent something.
//
// Thread: any, but where TOLK_LOOP says otherwise. Owner: the object, the stream, and every request
// of the peer. Failure: std::bad_alloc.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "capi/ordered_queue.h"
#include "transport/outgoing_queue.h"
#include "transport/peer_stream.h"
#include "transport/piece_assembler.h"

namespace tolk {

class Core;
class RequestIn;

// How many calls of one peer may have their data on their way.
inline constexpr std::size_t kMostIncoming = 1000;

// When a peer is not read from: above one of the two. Below three quarters it is again.
struct PeerQuota {
  std::size_t bytes = SIZE_MAX;
  std::size_t requests = SIZE_MAX;
};

class Peer final : public StreamUser,
                   public OutgoingEvents,
                   public std::enable_shared_from_this<Peer> {
 public:
  // Who is at the other end.
  struct Identity {
    std::uint64_t id = 0;
    std::string address;
    std::string user;
    std::int64_t process = 0;

    // The user and the process of a local pipe.
    void note_user_of(const uv_pipe_t* pipe);
  };

  Peer(Core& core, Identity identity, std::size_t most_queued, PeerQuota quota);
  static std::shared_ptr<Peer> make(Core& core, Identity identity, std::size_t most_queued,
                                    PeerQuota quota);

  std::uint64_t id() const { return shown_.client; }
  const tolk_peer& shown() const { return shown_; }
  std::string name() const;  // "client 3", "the server"
  OutgoingQueue& out() { return out_; }

  void open(PeerStream& stream) TOLK_LOOP;
  // The connection has ended; requests hear `status` of that. False: it is known already.
  bool close(tolk_status status) TOLK_LOOP;
  bool is_gone() const { return gone_; }
  tolk_status gone_as() const { return gone_as_; }
  PeerStream* stream() TOLK_LOOP { return stream_; }
  Sent send(Frame&& frame, bool counts, Send when = Send::now);
  // Ends the connection soon. Needs no memory.
  void disconnect();

  // What the peer takes, by its version check. The first one counts.
  void note_features(std::string_view features) TOLK_LOOP;
  bool takes_cancel() const { return takes_cancel_; }
  bool takes_describe() const { return takes_describe_; }
  bool tells_features() const { return tells_features_; }
  bool takes_pieces() const { return takes_pieces_; }

  // Requests wait until on_connect has begun.
  void dispatch(const std::shared_ptr<tolk_request>& request) TOLK_LOOP;
  // The same for data of a call, whose `accept` is code of the host.
  void schedule(const std::shared_ptr<RequestIn>& data) TOLK_LOOP;
  void on_hook_begun();
  void dispatch_next(OrderedQueue& queue);
  OrderedQueue& ordered() { return ordered_; }
  OrderedQueue& hooks() { return hooks_; }
  // The host of a server has heard of the peer.
  void note_announced() TOLK_LOOP { is_announced_ = true; }
  bool is_announced() const TOLK_LOOP { return is_announced_; }
  // The hooks of a server, made before the host hears of the peer; null is none.
  void set_hooks(std::shared_ptr<tolk_task> connect, std::shared_ptr<tolk_task> gone) TOLK_LOOP;
  std::shared_ptr<tolk_task> take_connect_hook() TOLK_LOOP { return std::move(connect_hook_); }
  std::shared_ptr<tolk_task> take_gone_hook() TOLK_LOOP { return std::move(gone_hook_); }
  PieceAssembler& plain_pieces() { return plain_pieces_; }

  // True: the peer is above its quota, and the message waits until it is below.
  bool holds_back(const SharedBytes& message) TOLK_LOOP;
  void add_request(tolk_request& request, std::size_t bytes) TOLK_LOOP;
  // The two halves of that. A request whose data are on their way does not count for the quota: it
  // ends only if the peer is read.
  void list_request(tolk_request& request);
  void count_request(tolk_request& request, std::size_t bytes) TOLK_LOOP;
  void remove_request(tolk_request& request, std::size_t bytes, bool counted);
  std::size_t requests() const { return listed_count_; }
  // Data that come with calls of the peer, by the peer's number of the transfer. False: there is
  // one of that number.
  bool add_incoming(std::int32_t transfer, std::shared_ptr<RequestIn> data);
  // Whether a further one with so many bytes of arguments may begin. One alone may.
  bool has_room_for_incoming(std::size_t bytes) const;
  std::shared_ptr<RequestIn> incoming(std::int32_t transfer) const;
  void forget_incoming(std::int32_t transfer, const RequestIn& data);
  // Stops those whose call has this token.
  void end_incoming(std::string_view token);
  // Counts data of the peer that are to be kept in memory, until they are dropped; or says why not.
  tolk_status keep_data(std::uint64_t total, std::uint64_t most);
  void drop_data(std::uint64_t total) { kept_data_ -= total; }
  void end_requests(std::string_view token, tolk_status status);
  void end_all_requests(tolk_status status);

 private:
  struct Held {
    bool hook_begun = false;
    std::list<std::shared_ptr<tolk_request>> requests;
    std::list<std::shared_ptr<RequestIn>> data;

    bool is_empty() const { return requests.empty() && data.empty(); }
  };
  // What other threads may need the loop thread for. Prepared, so that it needs no memory then.
  struct LoopTasks {
    std::unique_ptr<Task> flush;
    std::unique_ptr<Task> resume;
    std::unique_ptr<Task> disconnect;
  };
  using Incoming = std::map<std::int32_t, std::shared_ptr<RequestIn>>;
  using OpenRequests = std::multimap<std::string, tolk_request*, std::less<>>;

  std::pair<std::int64_t, std::shared_ptr<RequestIn>> incoming_after(std::int64_t transfer) const;
  void on_written() TOLK_LOOP override;
  void on_sent();
  void on_write_failed(int status) TOLK_LOOP override;
  void dispatch_now(const std::shared_ptr<tolk_request>& request);
  template <class Function>
  std::unique_ptr<Task> prepare(Function function);
  void post(std::unique_ptr<Task> LoopTasks::*which);
  void flush() TOLK_LOOP;
  void resume() TOLK_LOOP;
  void end_stream(int status) TOLK_LOOP;
  bool is_above(std::size_t requests, std::size_t bytes) const;
  bool is_below_resume() const;
  void resume_if_below();

  Core& core_;
  const Identity identity_;
  tolk_peer shown_{};
  const PeerQuota quota_;
  OutgoingQueue out_;
  OrderedQueue ordered_;
  OrderedQueue hooks_;
  Guarded<LoopTasks> loop_tasks_;
  PieceAssembler plain_pieces_;
  Guarded<Held> held_;
  Guarded<OpenRequests> open_requests_;
  Guarded<Incoming> incoming_;
  std::atomic<bool> gone_{false};
  std::atomic<tolk_status> gone_as_{TOLK_GONE};
  std::atomic<bool> takes_cancel_{false};
  std::atomic<bool> takes_describe_{false};
  std::atomic<bool> tells_features_{false};
  std::atomic<bool> takes_pieces_{false};
  std::atomic<std::size_t> listed_count_{0};
  std::atomic<std::size_t> request_count_{0};  // of those that count for the quota
  std::atomic<std::size_t> request_bytes_{0};
  std::atomic<std::uint64_t> kept_data_{0};
  std::atomic<bool> is_paused_{false};
  PeerStream* stream_ TOLK_GUARDED_BY(loop_role) = nullptr;
  // Above the quota: what was read together with the message that reached it.
  bool is_stopped_ TOLK_GUARDED_BY(loop_role) = false;
  std::deque<SharedBytes> held_back_ TOLK_GUARDED_BY(loop_role);
  bool is_announced_ TOLK_GUARDED_BY(loop_role) = false;
  bool is_checked_ TOLK_GUARDED_BY(loop_role) = false;
  std::shared_ptr<tolk_task> connect_hook_ TOLK_GUARDED_BY(loop_role);
  std::shared_ptr<tolk_task> gone_hook_ TOLK_GUARDED_BY(loop_role);
};

}  // namespace tolk
