/// @file
/// The call ids under which the library stores results.
#pragma once

#include <tolk/TolkParams.h>

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace tolk {
inline namespace v1 {

/// @cond internal
namespace detail {

// Lends an id to each call, so that no two calls share a result slot. An answered id is reused,
// because no other answer can arrive for it. An unanswered id is spoiled: a late answer would look
// like the answer to the next call.
// Thread: any. Owner: plain numbers.
class CallIds {
 public:
  int lend() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++lent_;
    if (free_.empty()) {
      next_ += 2;
      return next_;
    }
    const int id = free_.back();
    free_.pop_back();
    return id;
  }

  enum class Use { answered, spoiled, unused };

  // `clear` empties the whole result table. It runs when late answers may have accumulated there
  // and no call is under way that could lose its answer. No call begins meanwhile.
  template <class Clear>
  void take_back(int id, Use use, const Clear& clear) {
    const std::lock_guard<std::mutex> lock(mutex_);
    --lent_;
    if (use != Use::spoiled) {
      free_.push_back(id);
    } else {
      ++spoiled_since_clear_;
      spoiled_.push_back(id);
      if (spoiled_.size() > kMostSpoiled) spoiled_.pop_front();
    }
    if (lent_ != 0 || spoiled_since_clear_ < kWorthClearing) return;
    spoiled_since_clear_ = 0;
    clear();
  }

  // The id that has been spoiled for the longest time, to test whether its late answer has arrived.
  std::optional<int> take_spoiled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (spoiled_.size() < 2) return std::nullopt;  // the newest answer cannot have arrived yet
    const int id = spoiled_.front();
    spoiled_.pop_front();
    return id;
  }
  void still_spoiled(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    spoiled_.push_back(id);
  }
  void clean_again(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(id);
  }

  std::size_t under_way() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lent_;
  }

 private:
  // Odd numbers above the thread ids of every system. The plain interface uses thread ids and
  // addresses, which are even.
  static constexpr int kFirst = 0x40000001;
  static constexpr std::size_t kMostSpoiled = 4096;
  static constexpr std::size_t kWorthClearing = 64;

  mutable std::mutex mutex_;
  int next_ = kFirst;
  std::size_t lent_ = 0;
  std::size_t spoiled_since_clear_ = 0;
  std::vector<int> free_;
  std::deque<int> spoiled_;
};

// An id for the duration of one call.
template <class Clear>
class Lease {
 public:
  Lease(CallIds& ids, Clear clear) : ids_(ids), clear_(std::move(clear)), id_(ids.lend()) {}
  ~Lease() {
    if (answer_ != nullptr) answer_->Clear();  // the caller has copied its values
    ids_.take_back(id_, use_, clear_);
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  int id() const { return id_; }
  void note_answered(TolkParams* answer) {
    answer_ = answer;
    use_ = CallIds::Use::answered;
  }
  void note_unused() { use_ = CallIds::Use::unused; }

 private:
  CallIds& ids_;
  const Clear clear_;
  const int id_;
  CallIds::Use use_ = CallIds::Use::spoiled;
  TolkParams* answer_ = nullptr;
};

}  // namespace detail
/// @endcond

}  // namespace v1
}  // namespace tolk
