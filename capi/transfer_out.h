// Data that go to a peer: with a call of ours, or with the answer to a call of the peer.
//
// A window of pieces is under way. A peer that does not know pieces gets the data in one message.
//
// Thread: any for on_confirmed; the rest is of the transfer's steps. Owner: as each transfer.
// Failure: the call or the answer fails.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "capi/callbacks.h"
#include "capi/data.h"
#include "capi/messages.h"
#include "capi/pieces.h"
#include "capi/transfer.h"
#include "transport/thread_safety.h"

namespace tolk {

struct CallRecord;

class TransferOut : public Transfer {
 public:
  TransferOut(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
              std::unique_ptr<tolk_source> source);
  ~TransferOut() override;

  std::uint64_t number() const { return number_; }
  // The receiver has so many bytes.
  void on_confirmed(std::uint64_t done);

 protected:
  struct Trouble {
    tolk_status status;
    const char* reason;
    int code = 0;
  };

  // The first piece, without its bytes.
  virtual Piece head() const = 0;
  // Sends all data in one message.
  virtual void send_whole() = 0;
  virtual void send(Frame&& frame) = 0;
  virtual void send_piece(const Content& content, bool is_last) = 0;
  virtual bool may_go_on() { return true; }
  // The last piece waits until all others are confirmed.
  virtual bool last_waits() const { return false; }
  virtual bool report(std::uint64_t) { return true; }
  virtual void on_all_confirmed() {}
  virtual void fail(const Trouble& trouble) = 0;

  std::uint64_t total() const { return source_->total(); }
  // All data, in front of `rest`. False: it has failed.
  bool gather(const tolk_block& rest, Content* whole);
  bool calls_host() const override { return source_calls_host_; }
  void step() override;
  void release() override;
  bool in_pieces() const { return in_pieces_; }

 private:
  void begin();
  bool report_up_to(std::uint64_t confirmed);
  bool fill_window(std::uint64_t confirmed);
  bool send_next(std::size_t size);

  const std::uint64_t number_;
  const bool source_calls_host_;
  std::unique_ptr<tolk_source> source_;
  std::atomic<bool> is_accepted_{false};
  std::atomic<std::uint64_t> confirmed_{0};
  bool begun_ = false;
  bool in_pieces_ = false;
  std::uint64_t sent_ = 0;
  std::uint64_t reported_ = 0;
};

// The data of a call.
class CallOut final : public TransferOut {
 public:
  struct What {
    std::string method;
    Content arguments;
    bool has_arguments = false;
    std::int32_t limit_ms = 0;
    std::int32_t piece_limit_ms = 0;
    Progress progress;
  };
  CallOut(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
          std::unique_ptr<tolk_source> source, What what);

  // True: the transfer keeps the reply until the host knows that all data have arrived.
  bool keeps_reply(const SharedBytes& payload);
  // It came in time.
  bool has_kept_reply() const { return reply_.lock()->owner != nullptr; }
  // The connection, this end or the limit is over. If a reply is kept, it becomes the outcome.
  void tell_kept_reply(CallRecord& record) const;
  // The peer needs not be told that the call has ended.
  void on_ended() { peer_knows_ = true; }

 private:
  Piece head() const override;
  void send_whole() override;
  void send(Frame&& frame) override;
  void send_piece(const Content& content, bool is_last) override;
  bool last_waits() const override { return true; }
  bool report(std::uint64_t done) override;
  bool calls_host() const override {
    return what_.progress.function != nullptr || TransferOut::calls_host();
  }
  void fail(const Trouble& trouble) override;
  void step() override;
  void release() override;
  CallExtras last_extras();

  const What what_;
  std::atomic<bool> peer_knows_{false};
  Guarded<SharedBytes> reply_;
};

// The data of an answer.
class AnswerOut final : public TransferOut {
 public:
  AnswerOut(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
            std::unique_ptr<tolk_source> source, std::shared_ptr<tolk_request> request,
            Content result);
  ~AnswerOut() override;

 private:
  Piece head() const override;
  void send_whole() override;
  void send(Frame&& frame) override;
  void send_piece(const Content& content, bool is_last) override;
  bool may_go_on() override;
  void on_all_confirmed() override;
  void fail(const Trouble& trouble) override;
  void release() override;

  Callbacks::HandlerCount unwritten_;      // a close waits for the answer, as for a handler
  std::shared_ptr<tolk_request> request_;  // until it is answered
  const Content result_;
};

}  // namespace tolk
