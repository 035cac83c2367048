#include "capi/peer.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "capi/core.h"
#include "capi/messages.h"
#include "capi/request.h"
#include "capi/transfer_in.h"
#include "platform/peer_user.h"
#include "transport/pause_point.h"

namespace tolk {

void Peer::Identity::note_user_of(const uv_pipe_t* pipe) {
  platform::PeerUser peer = platform::peer_user(pipe);
  user = std::move(peer.user);
  process = peer.process;
}

Peer::Peer(Core& core, Identity identity, std::size_t most_queued, PeerQuota quota)
    : core_(core), identity_(std::move(identity)), quota_(quota), out_(*this, most_queued) {
  shown_.size = sizeof shown_;
  shown_.client = identity_.id;
  shown_.address = identity_.address.c_str();
  shown_.user = identity_.user.c_str();
  shown_.process = identity_.process;
}

std::shared_ptr<Peer> Peer::make(Core& core, Identity identity, std::size_t most_queued,
                                 PeerQuota quota) {
  return std::make_shared<Peer>(core, std::move(identity), most_queued, quota);
}

// The peer keeps its prepared tasks; they keep it only while they run.
template <class Function>
std::unique_ptr<Task> Peer::prepare(Function function) {
  return make_task([weak = weak_from_this(), function] {
    if (const auto self = weak.lock()) function(*self);
  });
}

void Peer::open(PeerStream& stream) {
  {
    const auto tasks = loop_tasks_.lock();
    tasks->flush = prepare([](Peer& self) {
      enter_loop();
      self.flush();
    });
    tasks->disconnect = prepare([](Peer& self) {
      enter_loop();
      self.end_stream(UV_ECANCELED);
    });
  }
  stream_ = &stream;
  out_.open(&stream.handle().stream);
}

bool Peer::close(tolk_status status) {
  if (gone_) return false;
  gone_as_ = status;
  gone_ = true;
  stream_ = nullptr;
  held_back_.clear();
  out_.close();
  return true;
}

Sent Peer::send(Frame&& frame, bool counts, Send when) {
  TOLK_PAUSE_POINT("peer.before_send");
  const Sent sent = out_.add(std::move(frame), counts, when);
  TOLK_PAUSE_POINT("peer.sent");
  if (sent == Sent::written) on_sent();
  if (sent != Sent::queued_first) return sent;
  if (when == Send::now && core_.on_loop_thread()) {
    enter_loop();
    out_.flush();
  } else {
    post(&LoopTasks::flush);
  }
  return sent;
}

std::string Peer::name() const {
  return id() == 0 ? "the server" : "client " + std::to_string(id());
}

void Peer::disconnect() { post(&LoopTasks::disconnect); }

void Peer::post(std::unique_ptr<Task> LoopTasks::*which) {
  std::unique_ptr<Task> task = std::move((*loop_tasks_.lock()).*which);
  if (task) core_.post_to_loop(std::move(task));
}

// The next task is there before the queue can ask for it.
void Peer::flush() {
  try {
    auto next = prepare([](Peer& self) {
      enter_loop();
      self.flush();
    });
    loop_tasks_.lock()->flush = std::move(next);
  } catch (const std::exception&) {
    return end_stream(UV_ENOMEM);
  }
  out_.flush();
}

bool Peer::holds_back(const SharedBytes& message) {
  if (!is_stopped_) return false;
  held_back_.push_back(message.owner ? message : copy_of(message.view));
  return true;
}

// What was held back may reach the quota again.
void Peer::resume() {
  const auto goes_on = [this] {
    enter_loop();
    return stream_ != nullptr && !stream_->is_closing();
  };
  is_stopped_ = false;
  while (goes_on() && !is_stopped_ && !held_back_.empty()) {
    const SharedBytes message = std::move(held_back_.front());
    held_back_.pop_front();
    const bool taken = guarded_or(false, [&] {
      enter_loop();
      core_.receive(shared_from_this(), message);
      return true;
    });
    if (!taken) return end_stream(UV_ENOMEM);
  }
  if (goes_on() && !is_stopped_) stream_->start_reading();
}

void Peer::end_stream(int status) {
  if (stream_ != nullptr && !stream_->is_closing())
    stream_->owner().on_stream_end(*stream_, status);
}

void Peer::set_hooks(std::shared_ptr<tolk_task> connect, std::shared_ptr<tolk_task> gone) {
  connect_hook_ = std::move(connect);
  gone_hook_ = std::move(gone);
}

void Peer::on_written() { on_sent(); }

void Peer::on_sent() {
  resume_if_below();
  core_.note_progress();
}

void Peer::on_write_failed(int status) { end_stream(status); }

void Peer::note_features(std::string_view features) {
  if (std::exchange(is_checked_, true)) return;
  tells_features_ = true;
  takes_cancel_ = has_feature(features, "cancel");
  takes_describe_ = has_feature(features, "describe");
  takes_pieces_ = has_feature(features, kFeaturePieces);
}

void Peer::dispatch(const std::shared_ptr<tolk_request>& request) {
  {
    const auto held = held_.lock();
    if (!held->hook_begun) return held->requests.push_back(request);
  }
  dispatch_now(request);
}

void Peer::dispatch_now(const std::shared_ptr<tolk_request>& request) {
  if (request->method().is_ordered() && !ordered_.push(request)) return;
  core_.callbacks().dispatch(request, Callbacks::When::now);
}

void Peer::schedule(const std::shared_ptr<RequestIn>& data) {
  {
    const auto held = held_.lock();
    if (!held->hook_begun) {
      auto& all = held->data;
      if (std::find(all.begin(), all.end(), data) == all.end()) all.push_back(data);
      return;
    }
  }
  data->schedule();
}

// A request that comes meanwhile waits behind those that are dispatched here.
void Peer::on_hook_begun() {
  for (;;) {
    Held begins;
    {
      const auto held = held_.lock();
      held->hook_begun = held->is_empty();
      if (held->hook_begun) return;
      begins.requests.swap(held->requests);
      begins.data.swap(held->data);
    }
    for (const auto& request : begins.requests) dispatch_now(request);
    for (const auto& data : begins.data) data->schedule();
  }
}

void Peer::dispatch_next(OrderedQueue& queue) {
  if (const auto next = queue.next()) core_.callbacks().dispatch(next, Callbacks::When::later);
}

void Peer::add_request(tolk_request& request, std::size_t bytes) {
  list_request(request);
  count_request(request, bytes);
}

void Peer::list_request(tolk_request& request) {
  if (!request.token().empty()) open_requests_.lock()->emplace(request.token(), &request);
  ++listed_count_;
  request.note_listed();
}

void Peer::count_request(tolk_request& request, std::size_t bytes) {
  ++request_count_;
  request_bytes_ += bytes;
  request.note_counted();
  if (stream_ == nullptr || !is_above(quota_.requests, quota_.bytes)) return;
  auto resume = prepare([](Peer& self) {
    enter_loop();
    self.resume();
  });
  loop_tasks_.lock()->resume = std::move(resume);
  stream_->stop_reading();
  is_stopped_ = true;
  if (!is_paused_.exchange(true)) {
    core_.log(TOLK_WARNING, [&] { return name() + " is above its quota and is not read"; });
  }
  resume_if_below();  // others may have ended meanwhile
}

void Peer::remove_request(tolk_request& request, std::size_t bytes, bool counted) {
  if (!request.token().empty()) {
    const auto open = open_requests_.lock();
    auto [at, last] = open->equal_range(request.token());
    while (at != last && at->second != &request) ++at;
    if (at != last) open->erase(at);
  }
  --listed_count_;
  if (!counted) return;
  --request_count_;
  request_bytes_ -= bytes;
  resume_if_below();
}

bool Peer::is_above(std::size_t requests, std::size_t bytes) const {
  return request_count_ > requests || request_bytes_ + out_.bytes() > bytes;
}

bool Peer::is_below_resume() const {
  return !is_above(quota_.requests - quota_.requests / 4, quota_.bytes - quota_.bytes / 4);
}

void Peer::resume_if_below() {
  if (!is_paused_ || !is_below_resume() || !is_paused_.exchange(false)) return;
  post(&LoopTasks::resume);
}

tolk_status Peer::keep_data(std::uint64_t total, std::uint64_t most) {
  if (total > most) return TOLK_TOO_LARGE;
  std::uint64_t kept = kept_data_;
  do {
    if (kept > most - total) return TOLK_BUSY;
  } while (!kept_data_.compare_exchange_weak(kept, kept + total));
  return TOLK_OK;
}

bool Peer::add_incoming(std::int32_t transfer, std::shared_ptr<RequestIn> data) {
  return incoming_.lock()->emplace(transfer, std::move(data)).second;
}

bool Peer::has_room_for_incoming(std::size_t bytes) const {
  const auto incoming = incoming_.lock();
  if (incoming->empty()) return true;
  for (const auto& [transfer, data] : *incoming) bytes += data->argument_bytes();
  return incoming->size() < kMostIncoming && bytes <= quota_.bytes;
}

std::shared_ptr<RequestIn> Peer::incoming(std::int32_t transfer) const {
  const auto incoming = incoming_.lock();
  const auto at = incoming->find(transfer);
  return at == incoming->end() ? nullptr : at->second;
}

void Peer::forget_incoming(std::int32_t transfer, const RequestIn& data) {
  std::shared_ptr<RequestIn> dropped;  // freed after the lock
  const auto incoming = incoming_.lock();
  const auto at = incoming->find(transfer);
  if (at == incoming->end() || at->second.get() != &data) return;
  dropped = std::move(at->second);
  incoming->erase(at);
}

// In the order of the numbers; null behind the last.
std::pair<std::int64_t, std::shared_ptr<RequestIn>> Peer::incoming_after(
    std::int64_t transfer) const {
  const auto incoming = incoming_.lock();
  auto at = incoming->begin();
  while (at != incoming->end() && at->first <= transfer) ++at;
  if (at == incoming->end()) return {};
  return *at;
}

void Peer::end_incoming(std::string_view token) {
  for (auto [transfer, data] = incoming_after(INT64_MIN); data;
       std::tie(transfer, data) = incoming_after(transfer)) {
    if (data->token() == token) data->stop();
  }
}

void Peer::end_requests(std::string_view token, tolk_status status) {
  const auto open = open_requests_.lock();
  const auto [first, last] = open->equal_range(token);
  for (auto at = first; at != last; ++at) at->second->set_state(status);
}

void Peer::end_all_requests(tolk_status status) {
  {
    const auto open = open_requests_.lock();
    for (const auto& [token, request] : *open) request->set_state(status);
  }
  Incoming incoming;
  incoming.swap(*incoming_.lock());
  for (const auto& [transfer, data] : incoming) data->stop();
}

}  // namespace tolk
