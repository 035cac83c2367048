// Transfers of more bytes than 32 bits can count.
#if !defined(_WIN32)
#include <fcntl.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "pair.h"
#include "tests/e2e/support/system.h"
#include "transfer_support.h"

namespace {

using tolk::test::Checker;
using tolk::test::DataCall;
using tolk::test::DataMethod;
using tolk::test::kPieceOfTransfer;
using tolk::test::Maker;
using tolk::test::Pair;
using tolk::test::TempFile;

// A few bytes more than this are sent, with a bound on what is in memory meanwhile. If 32 bits
// counted them, few bytes would remain. Wine takes long for so many: there they are more than a
// signed number counts. A sanitizer, which looks at the code and not at the numbers, would take
// minutes.
#if defined(TOLK_SANITIZED)
constexpr std::uint64_t kHuge = std::uint64_t{64} << 20;
#else
constexpr std::uint64_t kHuge = std::uint64_t{tolk::test::kOnWindows ? 2 : 4} << 30;
#endif

// The system would look for memory for all that was read, which takes it longer than the transfer.
void drop_from_cache([[maybe_unused]] const std::string& path) {
#if defined(POSIX_FADV_DONTNEED)
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
  close(file);
#endif
}

class CapiHugeTransfers : public Pair {};
INSTANTIATE_TEST_SUITE_P(Pipe, CapiHugeTransfers, testing::Values("pipe"),
                         tolk::test::transport_name);

TEST_P(CapiHugeTransfers, AHugeSparseFileGoesThroughAFewPieces) {
  constexpr std::uint64_t kTotal = kHuge + 12345;
  const TempFile from;
  from.put("begin");
  std::filesystem::resize_file(from.path(), kTotal);
  std::atomic<std::uint64_t> got{0};
  const auto count = [](void* to, const void*, std::size_t size) {
    *static_cast<std::atomic<std::uint64_t>*>(to) += size;
    return true;
  };
  DataMethod method;
  method.accept = [&](const tolk_request*, std::uint64_t total, tolk_sink** sink) {
    EXPECT_EQ(total, kTotal);
    *sink = tolk_sink_callback(count, &got, nullptr);
    return TOLK_OK;
  };
  method.add_to(server_methods.get(), "store");
  start();
  std::uint64_t most_ahead = 0;
  DataCall call("store");
  call.raw.source = from.source();
  call.may_go_on = [&](std::uint64_t done) {
    most_ahead = std::max<std::uint64_t>(most_ahead, got - done);
    if (done % (256 * kPieceOfTransfer) == 0) drop_from_cache(from.path());
    return true;
  };
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  EXPECT_EQ(got, kTotal);
  EXPECT_LE(most_ahead, 8 * kPieceOfTransfer);
  end();
}

TEST_P(CapiHugeTransfers, HugeDataComeWithAnAnswer) {
  constexpr std::uint64_t kTotal = kHuge + 5;
  Maker maker;
  Checker checker;
  DataMethod method;
  method.handler = [&](tolk_request* request) {
    tolk_request_answer_data(request, nullptr, maker.source(kTotal));
  };
  method.add_to(server_methods.get(), "fetch");
  start();
  DataCall call("fetch");
  call.raw.sink = checker.sink();
  call.may_go_on = [&](std::uint64_t) {
    EXPECT_LE(maker.made - checker.got, 9 * kPieceOfTransfer);
    return true;
  };
  EXPECT_EQ(call.run(client.get()), TOLK_OK) << call.reason;
  EXPECT_EQ(checker.got, kTotal);
  EXPECT_TRUE(checker.all_right);
  end();
}

}  // namespace
