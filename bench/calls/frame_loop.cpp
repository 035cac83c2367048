#include "bench/calls/frame_loop.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace bench {

struct FrameLoop::Connection {
  union {
    uv_handle_t handle;
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  };
  FrameLoop* owner = nullptr;
  bool is_open = true;
  std::string in;   // the beginning of a small frame
  std::string out;  // small frames of this turn
  FrameHeader big_header;
  Block big;  // the payload of a frame that is read directly
  std::size_t big_bytes = 0;
};

namespace {

constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kMostQueuedBytes = std::size_t{1} << 20;
constexpr int kBacklog = 4096;

void must(int result) {
  if (result < 0) throw std::runtime_error(uv_strerror(result));
}

std::string_view bytes_of(const FrameHeader& header) {
  return {reinterpret_cast<const char*>(&header), sizeof header};
}

uv_buf_t buffer_of(std::string_view bytes) {
  return uv_buf_init(const_cast<char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
}

struct PendingWrite {
  uv_write_t request;
  std::string copy;
  FrameLoop::Block block;
};

// What the system does not take at once: `small` is copied, `big` is in `block` or the sender's.
void write_rest(uv_stream_t* stream, std::string_view small, std::string_view big,
                FrameLoop::Block block) {
  auto* const pending = new PendingWrite{{}, std::string(small), std::move(block)};
  pending->request.data = pending;
  const std::array<uv_buf_t, 2> buffers{buffer_of(pending->copy), buffer_of(big)};
  const int result =
      uv_write(&pending->request, stream, buffers.data(), 2,
               [](uv_write_t* done, int) { delete static_cast<PendingWrite*>(done->data); });
  if (result < 0) delete pending;
}

void write_now(uv_stream_t* stream, std::string_view small, std::string_view big = {},
               FrameLoop::Block block = nullptr) {
  const std::array<uv_buf_t, 2> buffers{buffer_of(small), buffer_of(big)};
  const int result = uv_try_write(stream, buffers.data(), big.empty() ? 1 : 2);
  std::size_t taken = result > 0 ? static_cast<std::size_t>(result) : 0;
  if (taken == small.size() + big.size()) return;
  const std::size_t of_small = std::min(taken, small.size());
  small.remove_prefix(of_small);
  big.remove_prefix(taken - of_small);
  write_rest(stream, small, big, std::move(block));
}

}  // namespace

FrameLoop::FrameLoop(OnFrame on_frame, bool may_poll)
    : on_frame_(std::move(on_frame)), polling_(may_poll), read_buffer_(kReadBytes, '\0') {
  must(uv_loop_init(&loop_));
  must(uv_async_init(&loop_, &wake_up_, [](uv_async_t* handle) {
    static_cast<FrameLoop*>(handle->data)->send_queued();
  }));
  wake_up_.data = this;
}

FrameLoop::Connection& FrameLoop::add(const Place& place, Socket connected) {
  Connection& connection = connections_.emplace_back();
  connection.owner = this;
  if (place.transport == Transport::pipe) {
    must(uv_pipe_init(&loop_, &connection.pipe, 0));
    must(uv_pipe_open(&connection.pipe, connected.release()));
  } else {
    must(uv_tcp_init(&loop_, &connection.tcp));
    must(uv_tcp_open(&connection.tcp, connected.release()));
  }
  connection.handle.data = &connection;
  must(uv_read_start(&connection.stream, give_memory, take_bytes));
  return connection;
}

void FrameLoop::listen(const Place& place) {
  listener_ = std::make_unique<Connection>();
  Connection& listener = *listener_;
  listener.owner = this;
  if (place.transport == Transport::pipe) {
    must(uv_pipe_init(&loop_, &listener.pipe, 0));
    must(uv_pipe_open(&listener.pipe, listen_at(place).release()));
  } else {
    must(uv_tcp_init(&loop_, &listener.tcp));
    must(uv_tcp_open(&listener.tcp, listen_at(place).release()));
  }
  listener.handle.data = &listener;
  must(uv_listen(&listener.stream, kBacklog, [](uv_stream_t* stream, int) {
    static_cast<Connection*>(stream->data)->owner->accept_one();
  }));
}

void FrameLoop::accept_one() {
  Connection& connection = connections_.emplace_back();
  connection.owner = this;
  if (listener_->handle.type == UV_NAMED_PIPE) {
    uv_pipe_init(&loop_, &connection.pipe, 0);
  } else {
    uv_tcp_init(&loop_, &connection.tcp);
  }
  connection.handle.data = &connection;
  if (uv_accept(&listener_->stream, &connection.stream) != 0) return;
  if (listener_->handle.type == UV_TCP) uv_tcp_nodelay(&connection.tcp, 1);
  uv_read_start(&connection.stream, give_memory, take_bytes);
}

void FrameLoop::start() {
  thread_ = std::thread([this] { run(); });
}

FrameLoop::~FrameLoop() {
  ending_ = true;
  uv_async_send(&wake_up_);
  if (thread_.joinable()) thread_.join();
  uv_loop_close(&loop_);
}

void FrameLoop::send(Connection& connection, const FrameHeader& header, std::string_view payload,
                     Block block) {
  Outgoing one{&connection, header, {}, {}, std::move(block)};
  if (payload.size() >= kBigBytes) {
    one.big = payload;
  } else {
    one.copy.assign(payload);
  }
  bool first = false;
  {
    std::unique_lock<std::mutex> lock(lock_);
    room_.wait(lock, [this] { return queued_bytes_ < kMostQueuedBytes; });
    first = queue_.empty();
    queued_bytes_ += payload.size() + sizeof header;
    queue_.push_back(std::move(one));
  }
  // The loop sets awake_ to false before it looks at the queue for the last time.
  if (first && !awake_.load()) uv_async_send(&wake_up_);
}

bool FrameLoop::send_queued() {
  std::vector<Outgoing> queue;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    queue.swap(queue_);
    if (queued_bytes_ >= kMostQueuedBytes) room_.notify_all();
    queued_bytes_ = 0;
  }
  for (Outgoing& one : queue) write_out(one);
  flush();
  worked_ = worked_ || !queue.empty();
  return !queue.empty();
}

void FrameLoop::write_out(Outgoing& one) {
  Connection& connection = *one.connection;
  if (!connection.is_open) return;
  if (!one.big.empty()) {
    flush();
    write_now(&connection.stream, bytes_of(one.header), one.big, std::move(one.block));
    return;
  }
  if (connection.out.empty()) unwritten_.push_back(&connection);
  connection.out.append(bytes_of(one.header)).append(one.copy);
}

void FrameLoop::flush() {
  for (Connection* const connection : unwritten_) {
    if (connection->is_open) write_now(&connection->stream, connection->out);
    connection->out.clear();
  }
  unwritten_.clear();
}

void FrameLoop::run() {
  while (!ending_) {
    if (polling_.pays()) poll();
    if (ending_) break;  // the poll may have taken the wake-up
    const Polling::Clock::time_point begin = Polling::Clock::now();
    worked_ = false;
    uv_run(&loop_, UV_RUN_ONCE);
    if (worked_) polling_.waited(Polling::Clock::now() - begin);
  }
  for (Connection& connection : connections_) close(connection);
  uv_close(reinterpret_cast<uv_handle_t*>(&wake_up_), nullptr);
  uv_run(&loop_, UV_RUN_DEFAULT);
}

void FrameLoop::close(Connection& connection) {
  if (!connection.is_open) return;
  connection.is_open = false;
  uv_close(&connection.handle, nullptr);
  connection.in = {};
}

// Until there has been nothing to do for a while.
void FrameLoop::poll() {
  awake_ = true;
  Polling::Clock::time_point last = Polling::Clock::now();
  while (awake_ && !ending_) {
    worked_ = false;
    send_queued();
    uv_run(&loop_, UV_RUN_NOWAIT);
    const Polling::Clock::time_point now = Polling::Clock::now();
    if (worked_) {
      polling_.waited(now - last);
      last = now;
    } else if (now - last > Polling::kWindow || !polling_.pays()) {
      awake_ = false;
      if (send_queued()) awake_ = true;
    } else {
      Polling::give_way();
    }
  }
}

void FrameLoop::give_memory(uv_handle_t* handle, std::size_t, uv_buf_t* memory) {
  Connection& connection = *static_cast<Connection*>(handle->data);
  std::string& buffer = connection.owner->read_buffer_;
  *memory = buffer_of(buffer);
  if (!connection.big) return;
  const std::size_t whole = connection.big_header.payload_bytes;
  *memory = buffer_of({connection.big.get() + connection.big_bytes, whole - connection.big_bytes});
}

void FrameLoop::take_bytes(uv_stream_t* stream, ssize_t count, const uv_buf_t* memory) {
  Connection& connection = *static_cast<Connection*>(stream->data);
  FrameLoop& loop = *connection.owner;
  if (count == 0) return;
  loop.worked_ = true;
  if (count < 0) {
    loop.close(connection);
    return;
  }
  const std::string_view bytes(memory->base, static_cast<std::size_t>(count));
  if (!connection.big) {
    loop.cut(connection, bytes);
    return;
  }
  connection.big_bytes += bytes.size();
  if (connection.big_bytes < connection.big_header.payload_bytes) return;
  Block block = std::move(connection.big);
  const std::string_view payload(block.get(), connection.big_bytes);
  loop.on_frame_(connection, connection.big_header, payload, std::move(block));
}

void FrameLoop::cut(Connection& connection, std::string_view bytes) {
  std::string joined;
  if (!connection.in.empty()) {
    joined = std::exchange(connection.in, {}).append(bytes);
    bytes = joined;
  }
  FrameHeader header;
  while (bytes.size() >= sizeof header) {
    std::memcpy(&header, bytes.data(), sizeof header);
    if (bytes.size() - sizeof header < header.payload_bytes) break;
    on_frame_(connection, header, bytes.substr(sizeof header, header.payload_bytes), nullptr);
    bytes.remove_prefix(sizeof header + header.payload_bytes);
  }
  if (bytes.size() < sizeof header || header.payload_bytes < kBigBytes) {
    connection.in.assign(bytes);
    return;
  }
  bytes.remove_prefix(sizeof header);
  connection.big_header = header;
  connection.big = std::make_unique_for_overwrite<char[]>(header.payload_bytes);
  connection.big_bytes = bytes.copy(connection.big.get(), bytes.size());
}

}  // namespace bench
