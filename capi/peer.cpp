#include "capi/peer.h"

#include <utility>

#include "capi/core.h"
#include "capi/messages.h"
#include "capi/request.h"
#include "capi/transfer_in.h"

namespace tolk {

Peer::Peer(Core& core, std::uint64_t id, std::string address, std::size_t most_queued,
           PeerQuota quota)
    : core_(core), address_(std::move(address)), quota_(quota), out_(*this, most_queued) {
  shown_.size = sizeof shown_;
  shown_.client = id;
  shown_.address = address_.c_str();
  shown_.user = "";
}

void Peer::open(PeerStream& stream) {
  stream_ = &stream;
  out_.open(&stream.handle().stream);
}

bool Peer::close() {
  if (gone_.exchange(true)) return false;
  stream_ = nullptr;
  out_.close();
  return true;
}

Sent Peer::send(Frame&& frame, bool counts) {
  const Sent sent = out_.add(std::move(frame), counts);
  if (sent != Sent::queued_first) return sent;
  core_.run_on_loop([self = shared_from_this()] {
    enter_loop();
    self->out_.flush();
  });
  return sent;
}

void Peer::on_written() { resume_if_below(); }

void Peer::on_write_failed(int status) {
  if (stream_ != nullptr && !stream_->is_closing()) {
    stream_->owner().on_stream_end(*stream_, status);
  }
}

void Peer::note_features(std::string_view features) {
  if (std::exchange(is_checked_, true)) return;
  tells_features_ = true;
  takes_cancel_ = has_feature(features, "cancel");
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

// A request that comes meanwhile waits behind those that are dispatched here.
void Peer::on_hook_begun() {
  for (;;) {
    std::list<std::shared_ptr<tolk_request>> requests;
    {
      const auto held = held_.lock();
      held->hook_begun = held->requests.empty();
      if (held->hook_begun) return;
      requests.swap(held->requests);
    }
    for (const auto& request : requests) dispatch_now(request);
  }
}

void Peer::dispatch_next(OrderedQueue& queue) {
  if (const auto next = queue.next()) core_.callbacks().dispatch(next, Callbacks::When::later);
}

void Peer::add_request(tolk_request& request, std::size_t bytes) {
  open_requests_.lock()->emplace(request.token(), &request);
  ++request_count_;
  request_bytes_ += bytes;
  if (stream_ == nullptr || !is_above(quota_.requests, quota_.bytes)) return;
  is_paused_ = true;
  stream_->stop_reading();
  resume_if_below();  // others may have ended meanwhile
}

void Peer::remove_request(tolk_request& request, std::size_t bytes) {
  {
    const auto open = open_requests_.lock();
    auto [at, last] = open->equal_range(request.token());
    while (at != last && at->second != &request) ++at;
    if (at != last) open->erase(at);
  }
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
  core_.run_on_loop([self = shared_from_this()] {
    enter_loop();
    if (self->stream_ != nullptr && !self->stream_->is_closing()) self->stream_->start_reading();
  });
}

bool Peer::add_incoming(std::int32_t transfer, std::shared_ptr<RequestIn> data) {
  return incoming_.lock()->emplace(transfer, std::move(data)).second;
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

void Peer::end_incoming(std::string_view token) {
  const Incoming incoming = *incoming_.lock();
  for (const auto& [transfer, data] : incoming) {
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
  const Incoming incoming = *incoming_.lock();
  for (const auto& [transfer, data] : incoming) data->stop();
  std::list<std::shared_ptr<tolk_request>> dropped;  // freed after the lock
  held_.lock()->requests.swap(dropped);
  ordered_.clear();
}

}  // namespace tolk
