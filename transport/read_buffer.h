// The heap block of one read, of exactly the size that libuv suggests. The read callback frees it.
// Thread: loop. Failure: no memory gives an empty buffer, which libuv reports as UV_ENOBUFS.
#pragma once

#include <uv.h>

#include <cstdlib>
#include <memory>

namespace tolk {

inline void allocBufferCb(uv_handle_t*, std::size_t suggested_bytes, uv_buf_t* buffer) {
  buffer->base = static_cast<char*>(std::malloc(suggested_bytes));
  buffer->len = buffer->base == nullptr ? 0 : static_cast<decltype(buffer->len)>(suggested_bytes);
}

struct FreeReadBuffer {
  void operator()(char* base) const { std::free(base); }
};
using ReadBuffer = std::unique_ptr<char, FreeReadBuffer>;

}  // namespace tolk
