/// @file
/// Large data beside the arguments or the result of a call. They travel in pieces, so that they
/// need not be in memory as a whole. What the functions of a program do here runs where handlers
/// run, one at a time for each transfer.
#pragma once

#include <tolk/layer/core.hpp>

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
  /// Ends the transfer unless the receiver has the last byte. Call it only inside the callback.
  void cancel() const noexcept { *cancelled_ = true; }

 private:
  std::uint64_t done_;
  std::uint64_t total_;
  bool* cancelled_;
};

/// @cond internal
namespace detail {
// A file. The library takes its path as UTF-8.
template <class Opened, class Give, class T>
Opened open(const Give& give, const T& path) {
  decltype(std::declval<Opened>().get()) opened = nullptr;
  CError error;
  if constexpr (Path<T>) {
    const std::u8string text = path.u8string();
    give(reinterpret_cast<const char*>(text.c_str()), &opened, error.place());
  } else {
    give(std::string(path).c_str(), &opened, error.place());
  }
  if (opened == nullptr) throw to_error(error.get());
  return Opened(opened);
}

template <class T, void (*Free)(T*)>
class HeldData : public Held<T, Free> {
 public:
  explicit HeldData(T* owned) : Held<T, Free>(owned) {
    if (owned == nullptr) throw std::bad_alloc();
  }
};

template <class T>
void delete_context(void* context) {
  delete static_cast<T*>(context);
}

// The progress callback of one transfer of a caller, which waits for the end.
class Reporting {
 public:
  Reporting(const Core* core, const Function<void(Progress)>& report)
      : core_(core), report_(report) {}

  static bool run(void* context, std::uint64_t done, std::uint64_t total) {
    auto& self = *static_cast<Reporting*>(context);
    const Scope scope(self.core_);
    // Without any data, the begin is the end.
    if (!self.report_ || std::exchange(self.told_, done) == done) return true;
    bool cancelled = false;
    try {
      self.report_(Progress(done, total, cancelled));
    } catch (...) {
      self.thrown_ = std::current_exception();
    }
    return !cancelled && !self.thrown_;
  }
  void rethrow() const {
    if (thrown_) std::rethrow_exception(thrown_);
  }

 private:
  const Core* const core_;
  const Function<void(Progress)>& report_;
  std::uint64_t told_ = UINT64_MAX;
  std::exception_ptr thrown_;
};

// Bytes of a caller, which waits until the library needs them no more.
class Lent {
 public:
  explicit Lent(std::string_view data) : data_(data) {}
  ~Lent() { given_back_->wait(); }

  // To be called once.
  HeldData<tolk_source, tolk_source_free> source() {
    using Owner = std::shared_ptr<Later<bool>>;
    const auto give_back = [](void* context) {
      (*static_cast<Owner*>(context))->set(true);
      delete_context<Owner>(context);
    };
    auto* const owner = new Owner(given_back_);
    return HeldData<tolk_source, tolk_source_free>(
        tolk_source_memory(data_.data(), data_.size(), owner, give_back));
  }

 private:
  const std::string_view data_;
  const std::shared_ptr<Later<bool>> given_back_ = std::make_shared<Later<bool>>();
};

// The bytes of a text, or of a container of bytes.
template <class Data>
std::string_view view_of(const Data& data) {
  if constexpr (std::is_convertible_v<const Data&, std::string_view>) {
    return data;
  } else {
    const std::span all(data);
    static_assert(sizeof(*all.data()) == 1, "tolk: what is sent are bytes or a text");
    return {reinterpret_cast<const char*>(all.data()), all.size()};
  }
}
}  // namespace detail
/// @endcond

/// Where the data of a transfer come from: tolk::from_file, tolk::from_bytes, tolk::from_function.
/// A handler may return one, alone or in a std::pair behind its result.
using Source = detail::HeldData<tolk_source, tolk_source_free>;

/// Where the data of a transfer go: tolk::to_file, tolk::to_function.
using Sink = detail::HeldData<tolk_sink, tolk_sink_free>;

/// A file, as large as it is now. `path` is a path, or a text in UTF-8. Throws tolk::Error.
template <class T>
Source from_file(const T& path) {
  return detail::open<Source>(tolk_source_file, path);
}

/// Bytes in memory, which the transfer owns.
inline Source from_bytes(bytes data) {
  auto* const kept = new bytes(std::move(data));
  return Source(
      tolk_source_memory(kept->data(), kept->size(), kept, detail::delete_context<bytes>));
}

/// `total` bytes of a function: `read(span)` fills the beginning of the span and returns how many
/// bytes it has written. 0, or an exception, ends the transfer with Errc::file.
template <class Read>
Source from_function(std::uint64_t total, Read read) {
  const tolk_read run = [](void* context, void* to, std::size_t capacity) -> std::size_t {
    try {
      return (*static_cast<Read*>(context))(std::span(static_cast<std::byte*>(to), capacity));
    } catch (...) {
      return 0;
    }
  };
  return Source(
      tolk_source_callback(total, run, new Read(std::move(read)), detail::delete_context<Read>));
}

/// A file, which is made or emptied now, and removed if the transfer fails. See from_file.
template <class T>
Sink to_file(const T& path) {
  return detail::open<Sink>(tolk_sink_file, path);
}

/// A function: `write(std::span<const std::byte>)`. The sender gets the text of its exception.
template <class Write>
Sink to_function(Write write) {
  struct Context {
    Write write;
    tolk_sink* sink;
  };
  const tolk_write run = [](void* context, const void* data, std::size_t size) {
    auto& to = *static_cast<Context*>(context);
    try {
      to.write(std::span(static_cast<const std::byte*>(data), size));
      return true;
    } catch (const std::exception& error) {
      tolk_sink_explain(to.sink, error.what());
    } catch (...) {
    }
    return false;
  };
  auto* const context = new Context{std::move(write), nullptr};
  Sink sink(tolk_sink_callback(run, context, detail::delete_context<Context>));
  context->sink = sink.get();
  return sink;
}

}  // namespace v1
}  // namespace tolk
