/// @file
/// Large data in pieces: the progress, the pieces, and their reassembly.
///
/// A piece is a call of the layer's method "tolk.piece". The answer to each piece gives progress, a
/// timeout, and a way to cancel. The receiver keeps the received bytes in memory.
/// Thread: any. Failure: a piece that does not fit is refused.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <tolk/layer/peer.hpp>

namespace tolk {
inline namespace v1 {

/// The progress of a transfer. A progress callback takes it by value and may cancel.
class Progress {
 public:
  /// @cond internal
  Progress(std::uint64_t bytes_done, std::uint64_t bytes_total, bool& cancelled)
      : done_(bytes_done), total_(bytes_total), cancelled_(&cancelled) {}
  /// @endcond

  /// The bytes that the receiver has.
  std::uint64_t done() const noexcept { return done_; }
  /// The bytes in total.
  std::uint64_t total() const noexcept { return total_; }
  /// The part that the receiver has, 0 … 1; 1 when there is nothing to send.
  double fraction() const noexcept {
    return total_ == 0 ? 1 : static_cast<double>(done_) / static_cast<double>(total_);
  }
  /// Ends the transfer, and the receiver drops its bytes. Call it only inside the callback. It has
  /// no effect when the receiver has the last byte.
  void cancel() const noexcept { *cancelled_ = true; }

 private:
  std::uint64_t done_;
  std::uint64_t total_;
  bool* cancelled_;
};

/// @cond internal
namespace detail {

inline constexpr char kKeyTransfer[] = "tolk.transfer";
inline constexpr char kKeyMethod[] = "tolk.method";
inline constexpr char kKeyOffset[] = "tolk.offset";
inline constexpr char kKeyTotal[] = "tolk.total";
inline constexpr char kKeyCancel[] = "tolk.cancel";
inline constexpr char kKeyDone[] = "tolk.done";

// The incomplete transfers of a receiver, by sender and by the sender's transfer number.
class Transfers {
 public:
  struct Piece {
    int transfer = 0;
    std::string method;
    std::uint64_t offset = 0;
    std::uint64_t total = 0;
    bool cancelled = false;
    std::string_view data;  // valid as long as the block
    std::size_t size() const { return data.size(); }

    static std::optional<Piece> read(TolkParams& block) {
      Piece piece;
      bool cancelled = false;
      if (!Codec<int>::get(block.GetMap(kKeyTransfer), piece.transfer)) return std::nullopt;
      if (Codec<bool>::get(block.GetMap(kKeyCancel), cancelled) && cancelled) {
        piece.cancelled = true;
        return piece;
      }
      double offset = 0;
      double total = 0;
      if (!Codec<std::string>::get(block.GetMap(kKeyMethod), piece.method) ||
          !Codec<double>::get(block.GetMap(kKeyOffset), offset) ||
          !Codec<double>::get(block.GetMap(kKeyTotal), total) ||
          !Codec<std::string_view>::get(block.GetValue(0), piece.data)) {
        return std::nullopt;
      }
      const double most = static_cast<double>(kMostBytes);
      if (!(offset >= 0 && total >= 0 && offset <= most && total <= most)) return std::nullopt;
      piece.offset = static_cast<std::uint64_t>(offset);
      piece.total = static_cast<std::uint64_t>(total);
      return piece;
    }
  };

  struct Taken {
    bool in_order = false;
    std::uint64_t done = 0;
    std::optional<std::string> whole;  // set when nothing is missing
  };

  // The first piece of a transfer is empty. It tests whether the method exists and whether the peer
  // accepts pieces.
  Taken add(int sender, const Piece& piece) {
    const std::lock_guard<std::mutex> lock(mutex_);
    drop_stale();
    const auto at = open_.try_emplace({sender, piece.transfer}).first;
    std::string& joined = at->second.bytes;
    if (piece.offset == 0 && piece.data.empty()) joined.clear();
    if (joined.size() != piece.offset || joined.size() + piece.data.size() > piece.total) {
      open_.erase(at);
      return {};
    }
    joined.append(piece.data);
    at->second.touched = Clock::now();
    Taken taken{true, joined.size(), std::nullopt};
    if (piece.data.empty() || joined.size() < piece.total) return taken;
    taken.whole = std::move(joined);
    open_.erase(at);
    return taken;
  }

  void forget(int sender, int transfer) {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_.erase({sender, transfer});
  }
  void forget_all_of(int sender) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::erase_if(open_, [&](const auto& entry) { return entry.first.first == sender; });
  }
  std::size_t count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_.size();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kStale{60};

  struct Open {
    std::string bytes;
    Clock::time_point touched = Clock::now();
  };

  // Frees the bytes of senders that gave up without a cancel.
  void drop_stale() {
    const auto oldest = Clock::now() - kStale;
    std::erase_if(open_, [&](const auto& entry) { return entry.second.touched < oldest; });
  }

  mutable std::mutex mutex_;
  std::map<std::pair<int, int>, Open> open_;
};

// The sender of a transfer.
class Sending {
 public:
  static constexpr std::size_t kPieceBytes = std::size_t{1} << 18;

  Sending(Peer& peer, int to, std::string_view method, std::string_view data, Limit limit)
      : peer_(peer), to_(to), method_(method), data_(data), limit_(limit) {}

  // `put_rest` adds the arguments after the data; `progress` may cancel.
  template <class T, class PutRest, class Report>
  Result<T> run(const PutRest& put_rest, const Report& progress) {
    if (data_.size() > static_cast<std::size_t>(kMostBytes)) {
      return Error(Errc::too_large, method_, peer_.address(), "more than one call can carry");
    }
    bool cancelled = false;
    const auto report = [&](std::size_t done) {
      progress(Progress(done, data_.size(), cancelled));
      return !cancelled;
    };
    bool knows_pieces = false;
    if (!data_.empty()) {
      if (auto failed = ask(knows_pieces)) return *std::move(failed);
    }
    if (!report(0)) return give_up(knows_pieces);
    if (!knows_pieces) return in_one<T>(put_rest, report);
    std::size_t done = 0;
    for (; data_.size() - done > kPieceBytes; done += kPieceBytes) {
      if (done > 0 && !report(done)) return give_up(true);
      if (auto failed = send_piece(done)) return *std::move(failed);
    }
    if (done > 0 && !report(done)) return give_up(true);
    TolkParams last = piece(done, data_.substr(done));
    put_rest(last);
    Result<T> result = answered<T>(kPieceMethod, last);
    if (result) report(data_.size());
    return result;
  }

 private:
  static constexpr char kPieceMethod[] = "tolk.piece";

  // A peer without the layer answers that it lacks the method, and gets everything in one call.
  std::optional<Error> ask(bool& knows_pieces) {
    TolkParams first = piece(0, "");
    std::optional<Error> refused;
    auto failed = peer_.exchange(to_, kPieceMethod, &first, limit_, [&](TolkParams& block) {
      knows_pieces = block.GetMap(kKeyDone) != nullptr;
      if (block.GetMap(kKeyKind) != nullptr) refused = refusal_in(block, method_, peer_);
    });
    return failed ? renamed(*failed) : refused;
  }

  std::optional<Error> send_piece(std::size_t done) {
    TolkParams block = piece(done, data_.substr(done, kPieceBytes));
    std::optional<Error> refused;
    auto failed = peer_.exchange(to_, kPieceMethod, &block, limit_, [&](TolkParams& answer) {
      refused = refusal_in(answer, method_, peer_);
      if (refused || answer.GetMap(kKeyDone) != nullptr) return;
      refused.emplace(Errc::handler_failed, method_, peer_.address(), "a piece was not taken");
    });
    if (!failed) return refused;
    cancel();
    return renamed(*failed);
  }

  template <class T>
  Result<T> answered(const char* called, TolkParams& block) {
    std::optional<Result<T>> result;
    auto failed = peer_.exchange(to_, called, &block, limit_, [&](TolkParams& answer) {
      result.emplace(result_in<T>(answer, method_, peer_));
    });
    if (failed) return renamed(*failed);
    return *std::move(result);
  }

  template <class T, class PutRest, class Report>
  Result<T> in_one(const PutRest& put_rest, const Report& report) {
    TolkParams block;
    Position{block}.stream(data_);
    put_rest(block);
    Result<T> result = answered<T>(method_.c_str(), block);
    if (result && !data_.empty()) report(data_.size());
    return result;
  }

  TolkParams piece(std::size_t offset, std::string_view data) const {
    TolkParams block;
    block.AddKeyValueInt(kKeyTransfer, transfer_);
    block.AddKeyValueString(kKeyMethod, method_.c_str());
    block.AddKeyValueDouble(kKeyOffset, static_cast<double>(offset));
    block.AddKeyValueDouble(kKeyTotal, static_cast<double>(data_.size()));
    Position{block}.stream(data);
    return block;
  }

  Error give_up(bool begun) {
    if (begun) cancel();
    return {Errc::cancelled, method_, peer_.address(), "cancelled by the progress callback"};
  }
  void cancel() {
    TolkParams block;
    block.AddKeyValueInt(kKeyTransfer, transfer_);
    block.AddKeyValueBool(kKeyCancel, true);
    peer_.post(to_, kPieceMethod, &block);
  }

  // Reports the failure of a piece as a failure of the host's call.
  Error renamed(const Error& error) const {
    return {error.code(), method_, error.address(), error.detail()};
  }

  static int next_transfer() {
    static std::atomic<int> last{0};
    return ++last;
  }

  Peer& peer_;
  const int to_;
  const std::string method_;
  const std::string_view data_;
  const Limit limit_;
  const int transfer_ = next_transfer();
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
