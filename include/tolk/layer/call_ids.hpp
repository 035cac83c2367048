/// @file
/// The ids under which the library keeps the results of calls.
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

// Lends an id to each call, so that no two calls share the slot of their result. An id comes back
// when its answer has come: then no other answer can. One whose answer did not come is spoiled: a
// late answer would look like that of the next call.
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

  // `clear` empties the whole table of results. It runs when late answers may have gathered there
  // and no call is under way whose answer could go with them; no call begins meanwhile.
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

  // The id that has been spoiled for longest, to look whether its late answer has come.
  std::optional<int> take_spoiled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (spoiled_.size() < 2) return std::nullopt;  // the newest can't have come yet
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
  // Odd numbers beyond every system's thread numbers: hosts without the layer use those, and
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

// An id for the length of one call.
template <class Clear>
class Lease {
 public:
  Lease(CallIds& ids, Clear clear) : ids_(ids), clear_(std::move(clear)), id_(ids.lend()) {}
  ~Lease() {
    if (answer_ != nullptr) answer_->Clear();  // what was read from it is the host's own
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
