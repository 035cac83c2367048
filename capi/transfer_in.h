// Data that come from a peer: with a call of the peer, or with the answer to a call of ours.
//
// The loop thread puts pieces, a step stores them and confirms each. Only what is not stored yet is
// in memory, except for data without a sink.
//
// Thread: the loop for put; the rest is of the transfer's steps. Owner: as each transfer.
// Failure: the pieces are answered with it, and the sink is dropped.
#pragma once

#include <tolk/c.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "capi/data.h"
#include "capi/messages.h"
#include "capi/pieces.h"
#include "capi/transfer.h"
#include "transport/growing_block.h"
#include "transport/thread_safety.h"

namespace tolk {

// A piece, its message, and what the answer to it repeats.
struct ReceivedPiece {
  Piece piece;
  SharedBytes message;  // owned
  CallIds ids;
};

class TransferIn : public Transfer {
 public:
  TransferIn(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t total);
  ~TransferIn() override;

  // A schedule follows.
  void put(ReceivedPiece piece) TOLK_LOOP;

 protected:
  // Before the first byte.
  virtual bool begin(const ReceivedPiece& first) = 0;
  virtual Progress progress() const = 0;
  // All bytes are stored; answers the piece.
  virtual void on_complete(const ReceivedPiece& last) = 0;
  void step() override;
  void release() override;

  void confirm(const ReceivedPiece& piece);
  void refuse(const ReceivedPiece& piece, tolk_status status, const char* text);
  // Data without a sink count for their peer, unless they are refused.
  bool keeps_data(const ReceivedPiece& first);
  // Before the sender hears of it.
  virtual void on_refused() {}
  std::uint64_t total() const { return total_; }

  std::unique_ptr<tolk_sink> sink_;
  GrowingBlock memory_;  // without a sink
  tolk_status status_ = TOLK_CANCELLED;

 private:
  // What a sender of this side has under way, and some more.
  static constexpr std::size_t kMostWaiting = 2 * kPieceWindow;

  std::optional<ReceivedPiece> next();
  void take_guarded(const ReceivedPiece& piece);
  void take(const ReceivedPiece& piece);
  bool store(const ReceivedPiece& piece);
  bool report(const ReceivedPiece& piece);
  void complete(const ReceivedPiece& piece);

  const std::uint64_t total_;
  std::uint64_t done_ = 0;
  bool begun_ = false;
  Guarded<std::list<ReceivedPiece>> waiting_;
};

// The data of a call of a peer.
class RequestIn final : public TransferIn {
 public:
  RequestIn(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer,
            std::shared_ptr<tolk_request> request, const Piece& first);
  ~RequestIn() override;

  const std::string& token() const;
  std::size_t argument_bytes() const;

 private:
  // `accept` may give a sink that runs code of the host.
  bool calls_host() const override;
  bool begin(const ReceivedPiece& first) override;
  Progress progress() const override;
  void on_complete(const ReceivedPiece& last) override;
  void release() override;

  const std::int32_t transfer_;
  std::shared_ptr<tolk_request> request_;
};

// The data of an answer.
class AnswerIn final : public TransferIn {
 public:
  AnswerIn(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, std::uint64_t number,
           std::uint64_t total, std::unique_ptr<tolk_sink> sink, Progress progress);

  // Whether all data are there. The caller takes those without a sink.
  bool take_all(double total, std::optional<SharedBytes>* data);

 private:
  struct Result {
    bool complete = false;
    SharedBytes data;
    std::unique_ptr<tolk_sink> sink;
  };

  bool begin(const ReceivedPiece& first) override;
  Progress progress() const override { return progress_; }
  bool calls_host() const override { return calls_host_; }
  void on_complete(const ReceivedPiece& last) override;
  void on_refused() override;
  void release() override;

  const std::uint64_t number_;
  const Progress progress_;
  const bool has_sink_;
  const bool calls_host_;
  std::uint64_t kept_ = 0;
  Guarded<Result> result_;  // for the thread that completes the call
};

}  // namespace tolk
