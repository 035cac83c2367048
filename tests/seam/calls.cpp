// The calls of libuv that the library makes and that can fail, and the making of a thread. The
// linker leads the library's calls here (--wrap, see CMakeLists.txt).
//
// Left out: uv_async_send and the semaphores, which end the process where they could fail.
// Numbers that the library passes and nobody would notice otherwise are looked at on the way; the
// process ends when one of them is not what is documented.
#include <uv.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <thread>

#include "tests/seam/faults.h"

using tolk::test::Chance;
using tolk::test::fails_now;

// int NAME(parameters): the real one, or the error.
#define TOLK_FAILING(name, error, parameters, arguments)                       \
  int __real_##name parameters;                                                \
  int __wrap_##name parameters;                                                \
  int __wrap_##name parameters {                                               \
    return fails_now(Chance::call, #name) ? (error) : __real_##name arguments; \
  }

namespace {

constexpr int kBacklog = 2147483647;
constexpr int kFailedConnections = 5;
constexpr std::uint64_t kFirstSweepMs = 500;
constexpr std::uint64_t kSweepStepMs = 100;
constexpr std::uint64_t kHourMs = 3'600'000;

void require(bool right, const char* what) {
  if (right) return;
  std::fprintf(stderr, "not as documented: %s\n", what);
  std::abort();
}

// The library's; it has one for all listeners.
constinit std::atomic<uv_connection_cb> connection_cb{nullptr};

// Connections that failed before they could be accepted, just before one that did not, or in place
// of it: as many as close a listener that has no descriptor for them.
void tell_of_connection(uv_stream_t* listener, int status) {
  const uv_connection_cb done = connection_cb;
  const bool none_left = tolk::test::is_next("descriptors");
  const bool fails = none_left || tolk::test::is_next("connection_cb");
  for (int i = 0; fails && i < kFailedConnections; ++i) {
    done(listener, none_left ? UV_EMFILE : UV_ECONNABORTED);
  }
  if (!none_left) done(listener, status);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names.
extern "C" {

TOLK_FAILING(uv_loop_init, UV_EMFILE, (uv_loop_t * loop), (loop))
TOLK_FAILING(uv_async_init, UV_EMFILE, (uv_loop_t * loop, uv_async_t* async, uv_async_cb done),
             (loop, async, done))
TOLK_FAILING(uv_tcp_init, UV_ENOMEM, (uv_loop_t * loop, uv_tcp_t* tcp), (loop, tcp))
TOLK_FAILING(uv_pipe_init, UV_ENOMEM, (uv_loop_t * loop, uv_pipe_t* pipe, int ipc),
             (loop, pipe, ipc))
TOLK_FAILING(uv_timer_init, UV_ENOMEM, (uv_loop_t * loop, uv_timer_t* timer), (loop, timer))
TOLK_FAILING(uv_tcp_connect, UV_ENETUNREACH,
             (uv_connect_t * request, uv_tcp_t* tcp, const sockaddr* address, uv_connect_cb done),
             (request, tcp, address, done))
TOLK_FAILING(uv_tcp_bind, UV_EADDRNOTAVAIL,
             (uv_tcp_t * tcp, const sockaddr* address, unsigned flags), (tcp, address, flags))
TOLK_FAILING(uv_pipe_bind, UV_EACCES, (uv_pipe_t * pipe, const char* name), (pipe, name))
TOLK_FAILING(uv_tcp_nodelay, UV_EINVAL, (uv_tcp_t * tcp, int on), (tcp, on))
TOLK_FAILING(uv_read_start, UV_ENOTCONN, (uv_stream_t * stream, uv_alloc_cb room, uv_read_cb done),
             (stream, room, done))
TOLK_FAILING(uv_write, UV_EBADF,
             (uv_write_t * request, uv_stream_t* stream, const uv_buf_t* buffers, unsigned count,
              uv_write_cb done),
             (request, stream, buffers, count, done))
TOLK_FAILING(uv_queue_work, UV_EINVAL,
             (uv_loop_t * loop, uv_work_t* work, uv_work_cb run, uv_after_work_cb done),
             (loop, work, run, done))
TOLK_FAILING(uv_ip4_addr, UV_EINVAL, (const char* text, int port, sockaddr_in* address),
             (text, port, address))

int __real_uv_listen(uv_stream_t* stream, int backlog, uv_connection_cb done);
int __wrap_uv_listen(uv_stream_t* stream, int backlog, uv_connection_cb done);
int __wrap_uv_listen(uv_stream_t* stream, int backlog, uv_connection_cb done) {
  require(backlog == kBacklog, "the backlog of uv_listen");
  connection_cb = done;
  return fails_now(Chance::call, "uv_listen")
             ? UV_EADDRINUSE
             : __real_uv_listen(stream, backlog, tell_of_connection);
}

// The timers that repeat are the sweeps of timeouts. One that does not can be made to come late.
int __real_uv_timer_start(uv_timer_t* timer, uv_timer_cb done, std::uint64_t first,
                          std::uint64_t repeat);
int __wrap_uv_timer_start(uv_timer_t* timer, uv_timer_cb done, std::uint64_t first,
                          std::uint64_t repeat);
int __wrap_uv_timer_start(uv_timer_t* timer, uv_timer_cb done, std::uint64_t first,
                          std::uint64_t repeat) {
  require(repeat == 0 || (first == kFirstSweepMs && repeat == kSweepStepMs),
          "the first time and the period of a sweep");
  if (repeat == 0 && tolk::test::is_next("single timer")) first = kHourMs;
  return fails_now(Chance::call, "uv_timer_start")
             ? UV_EINVAL
             : __real_uv_timer_start(timer, done, first, repeat);
}

// No test here changes the period of a sweep; a client never does.
void __real_uv_timer_set_repeat(uv_timer_t* timer, std::uint64_t repeat);
void __wrap_uv_timer_set_repeat(uv_timer_t* timer, std::uint64_t repeat);
void __wrap_uv_timer_set_repeat(uv_timer_t* timer, std::uint64_t repeat) {
  require(repeat == kSweepStepMs, "the new period of a sweep");
  __real_uv_timer_set_repeat(timer, repeat);
}

// Fails as the system does: the request is set up and has to be cleaned up.
int __real_uv_fs_unlink(uv_loop_t* loop, uv_fs_t* request, const char* path, uv_fs_cb done);
int __wrap_uv_fs_unlink(uv_loop_t* loop, uv_fs_t* request, const char* path, uv_fs_cb done);
int __wrap_uv_fs_unlink(uv_loop_t* loop, uv_fs_t* request, const char* path, uv_fs_cb done) {
  const bool fails = fails_now(Chance::call);
  return __real_uv_fs_unlink(loop, request, fails ? "/no/such/file" : path, done);
}

// A refused accept has taken the connection from the listener all the same.
int __real_uv_accept(uv_stream_t* listener, uv_stream_t* stream);
int __wrap_uv_accept(uv_stream_t* listener, uv_stream_t* stream);
int __wrap_uv_accept(uv_stream_t* listener, uv_stream_t* stream) {
  const int status = __real_uv_accept(listener, stream);
  return fails_now(Chance::call, "uv_accept") ? UV_ECONNABORTED : status;
}

// Tells of its failure by the callback.
void __real_uv_pipe_connect(uv_connect_t* request, uv_pipe_t* pipe, const char* name,
                            uv_connect_cb done);
void __wrap_uv_pipe_connect(uv_connect_t* request, uv_pipe_t* pipe, const char* name,
                            uv_connect_cb done);
void __wrap_uv_pipe_connect(uv_connect_t* request, uv_pipe_t* pipe, const char* name,
                            uv_connect_cb done) {
  __real_uv_pipe_connect(request, pipe, fails_now(Chance::call) ? "/no/such" : name, done);
}

// std::thread's own call of the system.
using ThreadState = std::unique_ptr<std::thread::_State>;
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, ThreadState state, void (*depend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, ThreadState state, void (*depend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, ThreadState state, void (*depend)()) {
  if (fails_now(Chance::call)) throw std::system_error(EAGAIN, std::generic_category());
  __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
      thread, std::move(state), depend);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
