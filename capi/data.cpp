#include "capi/data.h"

#include <uv.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "capi/context.h"
#include "capi/error.h"
#include "platform/guarded.h"

namespace tolk {
namespace {

// A system call of libuv without a loop. Its offsets have 64 bits, and its paths are UTF-8, on
// every system.
class FileRequest {
 public:
  FileRequest() = default;
  ~FileRequest() { uv_fs_req_cleanup(&raw_); }
  FileRequest(const FileRequest&) = delete;
  FileRequest& operator=(const FileRequest&) = delete;
  uv_fs_t* get() { return &raw_; }
  uv_fs_t* operator->() { return &raw_; }

 private:
  uv_fs_t raw_{};
};

constexpr int kReadable = 0644;

class File {
 public:
  File(const char* path, int flags) {
    FileRequest request;
    file_ = uv_fs_open(nullptr, request.get(), path, flags, kReadable, nullptr);
  }
  ~File() { close(); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // A libuv status, below 0 for a failure.
  int status() const { return std::min<int>(file_, 0); }
  int measure(std::uint64_t* size) {
    FileRequest request;
    const int status = uv_fs_fstat(nullptr, request.get(), file_, nullptr);
    if (status < 0) return status;
    if ((request->statbuf.st_mode & S_IFMT) == S_IFDIR) return UV_EISDIR;
    *size = request->statbuf.st_size;
    return 0;
  }
  bool is_regular() {
    FileRequest request;
    return uv_fs_fstat(nullptr, request.get(), file_, nullptr) == 0 &&
           (request->statbuf.st_mode & S_IFMT) == S_IFREG;
  }
  // How many bytes, or a status.
  std::int64_t read_at(std::uint64_t offset, char* to, std::size_t size) {
    FileRequest request;
    const uv_buf_t buffer = uv_buf_init(to, static_cast<unsigned>(size));
    uv_fs_read(nullptr, request.get(), file_, &buffer, 1, static_cast<std::int64_t>(offset),
               nullptr);
    return request->result;
  }
  std::int64_t write_at(std::uint64_t offset, std::string_view bytes) {
    FileRequest request;
    const uv_buf_t buffer =
        uv_buf_init(const_cast<char*>(bytes.data()), static_cast<unsigned>(bytes.size()));
    uv_fs_write(nullptr, request.get(), file_, &buffer, 1, static_cast<std::int64_t>(offset),
                nullptr);
    return request->result;
  }
  int close() {
    if (file_ < 0) return 0;
    FileRequest request;
    return uv_fs_close(nullptr, request.get(), std::exchange(file_, -1), nullptr);
  }

 private:
  uv_file file_ = -1;
};

constexpr std::size_t kMostBytesAtOnce = std::size_t{1} << 20;

class MemorySource final : public tolk_source {
 public:
  MemorySource(const void* bytes, std::size_t size, Context context)
      : tolk_source(size), at_(static_cast<const char*>(bytes)), context_(std::move(context)) {}

  bool read(char* to, std::size_t size) override {
    if (size != 0) std::memcpy(to, at_, size);
    at_ += size;
    return true;
  }

 private:
  const char* at_;
  const Context context_;
};

class FileSource final : public tolk_source {
 public:
  FileSource(std::unique_ptr<File> file, std::uint64_t total)
      : tolk_source(total), file_(std::move(file)) {}

  bool read(char* to, std::size_t size) override {
    while (size > 0) {
      const std::int64_t got = file_->read_at(offset_, to, std::min(size, kMostBytesAtOnce));
      if (got <= 0) {
        code_ = static_cast<int>(got);  // 0: the file has become shorter
        return false;
      }
      offset_ += static_cast<std::uint64_t>(got);
      to += got;
      size -= static_cast<std::size_t>(got);
    }
    return true;
  }

 private:
  const std::unique_ptr<File> file_;
  std::uint64_t offset_ = 0;
};

class CallbackSource final : public tolk_source {
 public:
  CallbackSource(std::uint64_t total, tolk_read from, Context context)
      : tolk_source(total), read_(from), context_(std::move(context)) {}

  bool read(char* to, std::size_t size) override {
    while (size > 0) {
      const std::size_t got = read_(context_.get(), to, size);
      if (got == 0 || got > size) return false;
      to += got;
      size -= got;
    }
    return true;
  }
  bool calls_host() const override { return true; }

 private:
  const tolk_read read_;
  const Context context_;
};

// Makes or empties the file when nothing else can fail any more.
class FileSink final : public tolk_sink {
 public:
  explicit FileSink(const char* path)
      : path_(path), file_(path, UV_FS_O_WRONLY | UV_FS_O_CREAT | UV_FS_O_TRUNC) {}
  ~FileSink() override {
    if (status_ < 0 || kept_) return;
    file_.close();
    FileRequest request;
    uv_fs_unlink(nullptr, request.get(), path_.c_str(), nullptr);
  }

  int status() const { return status_; }
  bool write(std::string_view bytes) override {
    while (!bytes.empty()) {
      const std::int64_t put = file_.write_at(offset_, bytes.substr(0, kMostBytesAtOnce));
      if (put <= 0) return false;
      offset_ += static_cast<std::uint64_t>(put);
      bytes.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
  }
  bool finish() override { return file_.close() == 0; }
  void keep() noexcept override { kept_ = true; }

 private:
  const std::string path_;
  File file_;
  const int status_ = file_.status();  // of the opening
  std::uint64_t offset_ = 0;
  bool kept_ = !file_.is_regular();  // a device stays
};

class CallbackSink final : public tolk_sink {
 public:
  CallbackSink(tolk_write to, Context context) : write_(to), context_(std::move(context)) {}

  bool write(std::string_view bytes) override {
    return write_(context_.get(), bytes.data(), bytes.size());
  }
  bool calls_host() const override { return true; }

 private:
  const tolk_write write_;
  const Context context_;
};

tolk_status fail_file(const char* path, int status, tolk_error** error) {
  Failure failure;
  failure.status = path == nullptr ? TOLK_MISUSE : TOLK_FILE;
  failure.reason = path == nullptr ? "there is no path, or no place for the result"
                                   : std::string(path) + ": " + uv_strerror(status);
  failure.code = status;
  return fail(error, std::move(failure));
}

}  // namespace
}  // namespace tolk

tolk_source* tolk_source_memory(const void* bytes, size_t size, void* context,
                                tolk_release free_context) {
  return tolk::guarded_or<tolk_source*>(nullptr, [&]() -> tolk_source* {
    tolk::Context owner(context, free_context);
    if (bytes == nullptr && size != 0) return nullptr;
    return new tolk::MemorySource(bytes, size, std::move(owner));
  });
}

tolk_status tolk_source_file(const char* path, tolk_source** source, tolk_error** error) {
  if (source != nullptr) *source = nullptr;
  return tolk::guarded_call(error, [&] {
    if (path == nullptr || source == nullptr) return tolk::fail_file(nullptr, 0, error);
    auto file = std::make_unique<tolk::File>(path, UV_FS_O_RDONLY);
    std::uint64_t size = 0;
    const int status = file->status() < 0 ? file->status() : file->measure(&size);
    if (status < 0) return tolk::fail_file(path, status, error);
    *source = new tolk::FileSource(std::move(file), size);
    return TOLK_OK;
  });
}

tolk_source* tolk_source_callback(uint64_t total, tolk_read read, void* context,
                                  tolk_release free_context) {
  return tolk::guarded_or<tolk_source*>(nullptr, [&]() -> tolk_source* {
    tolk::Context owner(context, free_context);
    if (read == nullptr) return nullptr;
    return new tolk::CallbackSource(total, read, std::move(owner));
  });
}

void tolk_source_free(tolk_source* source) { delete source; }

tolk_status tolk_sink_file(const char* path, tolk_sink** sink, tolk_error** error) {
  if (sink != nullptr) *sink = nullptr;
  return tolk::guarded_call(error, [&] {
    if (path == nullptr || sink == nullptr) return tolk::fail_file(nullptr, 0, error);
    auto made = std::make_unique<tolk::FileSink>(path);
    if (made->status() < 0) return tolk::fail_file(path, made->status(), error);
    *sink = made.release();
    return TOLK_OK;
  });
}

void tolk_sink_explain(tolk_sink* sink, const char* text) {
  if (sink == nullptr || text == nullptr) return;
  tolk::guarded([&] { sink->why = text; });  // without memory, the reason is the usual one
}

tolk_sink* tolk_sink_callback(tolk_write write, void* context, tolk_release free_context) {
  return tolk::guarded_or<tolk_sink*>(nullptr, [&]() -> tolk_sink* {
    tolk::Context owner(context, free_context);
    if (write == nullptr) return nullptr;
    return new tolk::CallbackSink(write, std::move(owner));
  });
}

void tolk_sink_free(tolk_sink* sink) { delete sink; }
