// Sources, sinks, and both ends of a call with data.
#pragma once

#include <tolk/c.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "pair.h"
#include "tests/e2e/support/waiting.h"
#include "tests/pattern.h"

namespace tolk::test {

inline constexpr std::size_t kPieceOfTransfer = std::size_t{256} << 10;

// The bytes of a transfer repeat, but not with the pieces, so that one that is lost, doubled or out
// of order shows. They are made and compared as quickly as memory allows: some transfers are large.
inline const std::string& repeated_bytes() {
  static const std::string bytes = pattern((std::size_t{1} << 20) - 57);
  return bytes;
}

template <class Use>
void for_each_part(std::uint64_t offset, std::size_t size, Use use) {
  for (std::size_t done = 0; done < size;) {
    const std::size_t at = (offset + done) % repeated_bytes().size();
    const std::size_t count = std::min(repeated_bytes().size() - at, size - done);
    use(done, repeated_bytes().data() + at, count);
    done += count;
  }
}

inline void make_bytes(std::uint64_t offset, char* to, std::size_t size) {
  for_each_part(offset, size, [&](std::size_t done, const char* part, std::size_t count) {
    std::memcpy(to + done, part, count);
  });
}

inline bool are_bytes(std::uint64_t offset, const char* bytes, std::size_t size) {
  bool all_right = true;
  for_each_part(offset, size, [&](std::size_t done, const char* part, std::size_t count) {
    if (std::memcmp(bytes + done, part, count) != 0) all_right = false;
  });
  return all_right;
}

inline std::string some_bytes(std::size_t size) {
  std::string bytes(size, '\0');
  make_bytes(0, bytes.data(), size);
  return bytes;
}

// A source of bytes that nobody has in memory. It counts its release.
struct Maker {
  std::atomic<std::uint64_t> made{0};
  std::uint64_t fails_at = UINT64_MAX;
  std::atomic<int> released{0};

  tolk_source* source(std::uint64_t total) {
    const auto read = [](void* self, void* to, std::size_t capacity) {
      auto& maker = *static_cast<Maker*>(self);
      if (maker.made >= maker.fails_at) return std::size_t{0};
      make_bytes(maker.made, static_cast<char*>(to), capacity);
      maker.made += capacity;
      return capacity;
    };
    return tolk_source_callback(total, read, this,
                                [](void* self) { ++static_cast<Maker*>(self)->released; });
  }
};

// A sink that checks what it gets.
struct Checker {
  std::atomic<std::uint64_t> got{0};
  std::uint64_t fails_at = UINT64_MAX;
  std::atomic<bool> all_right{true};
  std::atomic<int> released{0};
  Event is_released;

  tolk_sink* sink() {
    const auto write = [](void* self, const void* bytes, std::size_t size) {
      auto& checker = *static_cast<Checker*>(self);
      if (checker.got >= checker.fails_at) return false;
      if (!are_bytes(checker.got, static_cast<const char*>(bytes), size)) checker.all_right = false;
      checker.got += size;
      return true;
    };
    return tolk_sink_callback(write, this, [](void* self) {
      auto& checker = *static_cast<Checker*>(self);
      ++checker.released;
      checker.is_released.set();
    });
  }
};

class TempFile {
 public:
  TempFile() {
    static std::atomic<int> last{0};
    path_ = std::filesystem::temp_directory_path() /
            ("capi-transfer-" +
             std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + "-" +
             std::to_string(++last));
  }
  ~TempFile() { std::filesystem::remove(path_); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  std::string path() const { return path_.string(); }
  bool exists() const { return std::filesystem::exists(path_); }
  void put(const std::string& bytes) const {
    std::ofstream(path_, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
  }
  std::string all() const {
    std::string bytes(exists() ? std::filesystem::file_size(path_) : 0, '\0');
    std::ifstream(path_, std::ios::binary).read(bytes.data(), std::streamsize(bytes.size()));
    return bytes;
  }
  tolk_source* source() const {
    tolk_source* made = nullptr;
    EXPECT_EQ(tolk_source_file(path().c_str(), &made, nullptr), TOLK_OK);
    return made;
  }
  tolk_sink* sink() const {
    tolk_sink* made = nullptr;
    EXPECT_EQ(tolk_sink_file(path().c_str(), &made, nullptr), TOLK_OK);
    return made;
  }

 private:
  std::filesystem::path path_;
};

// A method that data come to, with what its host decides about them.
struct DataMethod {
  std::function<void(tolk_request*)> handler = [](tolk_request* request) {
    tolk_request_answer(request, nullptr);
  };
  std::function<tolk_status(const tolk_request*, std::uint64_t, tolk_sink**)> accept;
  std::function<bool(std::uint64_t, std::uint64_t)> progress = [](auto, auto) { return true; };
  std::atomic<int> handled{0};

  void add_to(tolk_methods* methods, const char* name) {
    tolk_method_options options{};
    options.size = sizeof options;
    if (accept) {
      options.accept = [](void* self, const tolk_request* request, std::uint64_t total,
                          tolk_sink** sink) {
        return static_cast<DataMethod*>(self)->accept(request, total, sink);
      };
    }
    options.progress = [](void* self, std::uint64_t done, std::uint64_t total) {
      return static_cast<DataMethod*>(self)->progress(done, total);
    };
    const auto call = [](void* self, tolk_request* request) {
      ++static_cast<DataMethod*>(self)->handled;
      static_cast<DataMethod*>(self)->handler(request);
    };
    ASSERT_EQ(tolk_methods_add(methods, name, call, this, &options, nullptr), TOLK_OK);
  }
};

// The host's side of a call with data.
struct DataCall {
  tolk_call raw{};
  std::vector<std::uint64_t> reports;
  std::function<bool(std::uint64_t)> may_go_on = [](std::uint64_t) { return true; };
  Owned<tolk_block> arguments;
  Owned<tolk_block> result;
  std::string reason;
  int code = 0;

  explicit DataCall(const char* method) {
    raw.size = sizeof raw;
    raw.method = method;
    raw.context = this;
    raw.progress = [](void* self, std::uint64_t done, std::uint64_t) {
      auto& call = *static_cast<DataCall*>(self);
      call.reports.push_back(done);
      return call.may_go_on(done);
    };
  }
  tolk_status finish(tolk_status status, tolk_block* block, tolk_error* error) {
    result.reset(block);
    reason = tolk_error_reason(error);
    code = tolk_error_code(error);
    tolk_error_free(error);
    return status;
  }
  tolk_status run(tolk_client* client) {
    raw.arguments = arguments.get();
    tolk_block* block = nullptr;
    tolk_error* error = nullptr;
    const tolk_status status =
        tolk_client_wait(client, tolk_client_start(client, &raw), &block, &error);
    return finish(status, block, error);
  }
  tolk_status run(tolk_server* server, std::uint64_t client) {
    raw.arguments = arguments.get();
    raw.client = client;
    tolk_block* block = nullptr;
    tolk_error* error = nullptr;
    const tolk_status status =
        tolk_server_wait(server, tolk_server_start(server, &raw), &block, &error);
    return finish(status, block, error);
  }
};

inline std::string bytes_at(const tolk_block* block, std::size_t at) {
  std::size_t size = 0;
  const void* const bytes = tolk_block_bytes(block, at, &size);
  return bytes == nullptr ? "" : std::string(static_cast<const char*>(bytes), size);
}

}  // namespace tolk::test
