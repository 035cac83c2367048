#include "capi/pieces.h"

#include <cmath>
#include <cstring>
#include <string>

#include "capi/block.h"
#include "params/encoder.h"
#include "params/parser.h"

namespace tolk {
namespace {

constexpr char kTransfer[] = "tolk.transfer";
constexpr char kMethodKey[] = "tolk.method";
constexpr char kToken[] = "tolk.token";
constexpr char kOffset[] = "tolk.offset";
constexpr char kTotal[] = "tolk.total";
constexpr char kCancel[] = "tolk.cancel";
constexpr char kArguments[] = "tolk.arguments";
constexpr char kDoneKey[] = "tolk.done";

// Doubles count bytes exactly up to here.
constexpr double kMostTotal = 9007199254740992.0;

class PieceSink : public IgnoringSink {
 public:
  explicit PieceSink(Piece& piece) : piece_(piece) {}

  void positional(const Scalar& value) {
    if (!has_bytes_ && value.has_bytes()) piece_.bytes = value.bytes;
    has_bytes_ = true;
  }

  void keyed(std::string_view key, const Scalar& value) {
    if (value.type == TolkValue::Double) return number(key, value.real);
    if (value.type == TolkValue::String && key == kMethodKey) piece_.method = value.bytes;
    if (value.type == TolkValue::String && key == kToken) piece_.token = value.bytes;
    if (value.type == TolkValue::Stream && key == kArguments) piece_.arguments = value.bytes;
    if (value.type == TolkValue::Bool && key == kCancel) piece_.cancels = value.boolean;
    if (value.type != TolkValue::Int || key != kTransfer) return;
    piece_.transfer = value.integer;
    has_transfer_ = true;
  }

  bool is_complete() const {
    if (!has_transfer_) return false;
    if (piece_.cancels) return true;
    return has_bytes_ && has_offset_ && has_total_ && piece_.bytes.size() <= piece_.total &&
           piece_.offset <= piece_.total - piece_.bytes.size() &&
           piece_.method.empty() != piece_.token.empty();
  }

 private:
  void number(std::string_view key, double value) {
    if (!(value >= 0 && value <= kMostTotal) || value != std::floor(value)) return;
    if (key == kOffset) {
      piece_.offset = static_cast<std::uint64_t>(value);
      has_offset_ = true;
    }
    if (key == kTotal) {
      piece_.total = static_cast<std::uint64_t>(value);
      has_total_ = true;
    }
  }

  Piece& piece_;
  bool has_bytes_ = false;
  bool has_transfer_ = false;
  bool has_offset_ = false;
  bool has_total_ = false;
};

std::string head_of(const Piece& piece) {
  std::string head;
  Encoder<std::string> encoder(head, 0);
  encoder.add_key(kTransfer);
  encoder.add_int(piece.transfer);
  encoder.add_key(piece.token.empty() ? kMethodKey : kToken);
  encoder.add_string(piece.token.empty() ? piece.method : piece.token);
  encoder.add_key(kOffset);
  encoder.add_double(static_cast<double>(piece.offset));
  encoder.add_key(kTotal);
  encoder.add_double(static_cast<double>(piece.total));
  if (!piece.arguments) return head;
  encoder.add_key(kArguments);
  encoder.add_stream(*piece.arguments);
  return head;
}

void append_value(tolk_block& to, const tolk_block& from, std::size_t at) {
  std::size_t size = 0;
  switch (tolk_block_kind(&from, at)) {
    case TOLK_MISSING:
    case TOLK_NONE:
      return to.add_none();
    case TOLK_BOOL:
      return to.add_bool(tolk_block_bool(&from, at));
    case TOLK_INT:
      return to.add_int(tolk_block_int(&from, at));
    case TOLK_UINT:
      return to.add_uint(tolk_block_uint(&from, at));
    case TOLK_DOUBLE:
      return to.add_double(tolk_block_double(&from, at));
    case TOLK_TEXT: {
      const char* const text = tolk_block_text(&from, at, &size);
      return to.add_text({text, size});
    }
    case TOLK_BYTES: {
      const auto* const bytes = static_cast<const char*>(tolk_block_bytes(&from, at, &size));
      return to.add_bytes({bytes, size});
    }
    case TOLK_LIST:
    case TOLK_MAP:
      break;
  }
  const tolk_block* const inner = tolk_block_inner(&from, at);
  if (inner == nullptr) return to.run_out_of_memory();
  if (tolk_block_kind(&from, at) == TOLK_LIST) return to.add_list(*inner);
  to.add_map(*inner);
}

}  // namespace

std::optional<Piece> Piece::read(std::string_view block) {
  Piece piece;
  PieceSink sink(piece);
  if (!parse_records(block, sink) || !sink.is_complete()) return std::nullopt;
  return piece;
}

PieceBlock::PieceBlock(const Piece& piece, std::size_t size) {
  constexpr std::size_t header = 5;
  constexpr std::size_t check_word = 4;
  const std::string head = head_of(piece);
  const std::size_t end = head.size() + header + size;
  const auto memory = std::make_shared_for_overwrite<char[]>(end + check_word);
  char* const at = memory.get() + head.size();
  std::memcpy(memory.get(), head.data(), head.size());
  at[0] = static_cast<char>(Tag::Stream);
  store32(at + 1, static_cast<std::uint32_t>(size));
  bytes = at + header;
  store32(memory.get() + end, static_cast<std::uint32_t>(end));
  content.bytes = {memory, {memory.get(), end + check_word}};
}

Frame confirm_message(Side side, const CallIds& ids, std::uint64_t done) {
  std::string records;
  Encoder<std::string> encoder(records, 0);
  encoder.add_key(kDoneKey);
  encoder.add_double(static_cast<double>(done));
  return reply_message(side, ids, {{nullptr, records}, {}});
}

void append_values(tolk_block& to, const tolk_block& from, std::size_t skip) {
  const std::size_t total = tolk_block_total(&from);
  for (std::size_t at = skip; at < total; ++at) {
    if (const char* const key = tolk_block_key(&from, at)) to.add_key(key);
    append_value(to, from, at);
  }
}

}  // namespace tolk
