// One call of a peer: the task that runs the handler, and what the handler answers.
//
// Thread: any; it is answered once. Owner: the list of callbacks until the handler begins, then the
// host until it ends the request. It keeps its object and its peer.
// Failure: an answer that there is no memory for ends the connection.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "capi/block.h"
#include "capi/callbacks.h"
#include "capi/messages.h"
#include "capi/methods.h"
#include "capi/peer.h"

namespace tolk {
struct ReceivedPiece;
}  // namespace tolk

struct tolk_request final : tolk_task {
 public:
  tolk_request(std::shared_ptr<tolk::Core> core, std::shared_ptr<tolk::Peer> peer,
               std::shared_ptr<const tolk::Method> method, const tolk::Message& call,
               const tolk::SharedBytes& payload, tolk::Callbacks::HandlerCount handler);
  // Of a call whose data come in pieces.
  tolk_request(std::shared_ptr<tolk::Core> core, std::shared_ptr<tolk::Peer> peer,
               std::shared_ptr<const tolk::Method> method, const tolk::Message& call,
               const tolk::ReceivedPiece& first, tolk::Callbacks::HandlerCount handler);
  ~tolk_request() override;

  // The peer knows the request, and counts it, until its end.
  void note_listed() { listed_ = true; }
  void note_counted() { counted_ = true; }
  std::size_t bytes() const { return bytes_; }
  // Data in memory are to be its first argument. They count for the peer, until its end.
  void note_data(std::uint64_t total) { data_bytes_ = total; }
  bool has_bad_arguments() const { return bad_arguments_; }
  const tolk::Method& method() const { return *method_; }
  const std::string& name() const { return name_; }
  const std::string& token() const { return token_; }
  const tolk_block* arguments() const { return arguments_.get(); }
  const tolk_peer& peer() const { return peer_->shown(); }
  tolk::Core& core() const { return *core_; }

  void set_state(tolk_status state);
  tolk_status state() const;
  std::int32_t limit_left() const;

  void answer(const tolk_block* result);
  void fail(const tolk::HandlerFailure& failure);
  // Takes the source. The request is answered when the data have arrived.
  void answer_data(const tolk_block* result, std::unique_ptr<tolk_source> source);
  void answer_with(const tolk::Content& result, std::optional<double> data);
  // Nobody has ended it, and the caller has not told or left. Its limit does not count: data take
  // their time.
  bool is_wanted() const;

  // A large call of a plain client: the block that its pieces are, with the client's call id. The
  // result goes back in such pieces.
  void become_plain(int call_id, const tolk::SharedBytes& block);

  // Data that came with the call, all of them, and their last piece. Without a value of its own
  // they are in a sink. Fails if they are too large for the arguments.
  tolk_status take_data(std::optional<tolk::SharedBytes> data, const tolk::ReceivedPiece& last);

 private:
  bool drop_all_but_memory() override;
  void run_claimed() override;
  void drop_claimed() override;
  template <class Send>
  void end_by(const Send& send);
  template <class MakeFrame>
  void end_with(const MakeFrame& make);
  template <class MakeRecords>
  void end_plain(const MakeRecords& make);
  void part_is_over();

  tolk::Callbacks::HandlerCount handler_;  // until the handler has returned
  std::shared_ptr<tolk::Peer> peer_;
  std::shared_ptr<const tolk::Method> method_;
  const std::string name_;
  tolk::CallIds ids_;
  std::optional<int> plain_call_id_;
  const std::string token_;
  const std::size_t bytes_;
  std::uint64_t data_bytes_ = 0;
  std::uint64_t deadline_ = UINT64_MAX;
  std::unique_ptr<tolk_block> arguments_;
  std::unique_ptr<tolk_block> arguments_before_data_;
  bool bad_arguments_ = false;
  bool listed_ = false;
  bool counted_ = false;
  std::shared_ptr<tolk_task> held_by_handler_;
  std::atomic<bool> ended_{false};
  std::atomic<tolk_status> state_{TOLK_OK};
  std::atomic<int> parts_left_{2};  // the handler's return, and the end
};
