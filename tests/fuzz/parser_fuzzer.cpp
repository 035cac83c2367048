// Any bytes as a block: the parser, the naive parser, the envelope's scan and the blocks of the C
// interface must agree.

#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tests/fuzz/block_repair.h"
#include "tests/fuzz/finding.h"
#include "tests/params/block_text.h"
#include "tests/params/naive_parser.h"
#include "transport/envelope.h"
#include "transport/reserved_names.h"

extern "C" {
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed);
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);
}

namespace {

using tolk::Envelope;
using tolk::test::expect;

// Both hold the records before a malformed one, so they are compared whatever the verdict is.
void expect_envelope_of(TolkParams& block, const Envelope& envelope) {
  const TolkValue* const name = block.GetMap(tolk::kKeyName);
  const TolkValue* const call_id = block.GetMap(tolk::kKeyCallId);
  const TolkValue* const token = block.GetMap(tolk::kKeyToken);
  expect("the name is there if its key is", envelope.name.has_value() == (name != nullptr));
  if (name != nullptr) expect("the name", *envelope.name == tolk::read::text(name).value_or(""));
  expect("the call id is there if its key is",
         envelope.call_id.has_value() == (call_id != nullptr));
  if (call_id != nullptr) expect("the call id", *envelope.call_id == tolk::read::number(call_id));
  expect("the arguments",
         envelope.arguments == tolk::read::bytes(block.GetMap(tolk::kKeyArguments)));
  const bool has_token = token != nullptr && token->IsString();
  expect("the token is there if it is a string", envelope.token.has_value() == has_token);
  if (has_token) expect("the token", envelope.token == tolk::read::text(token));
}

}  // namespace

// libFuzzer's copy of the input has exactly its size, so that the sanitizer sees a read past its
// end.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* const bytes = reinterpret_cast<const char*>(data);
  const tolk::test::NaiveParser naive({bytes, size});
  TolkParams block;
  const bool verdict = block.Parser(bytes, static_cast<int>(size));
  tolk::test::expect_same("verdict and values", tolk::test::block_text(verdict, block),
                          naive.text());
  const Envelope envelope = Envelope::scan({bytes, size});
  expect("the scan's verdict is the parser's", envelope.well_formed == verdict);
  expect_envelope_of(block, envelope);
  return 0;
}

// A quarter of the changes stays as it is; another quarter keeps the bytes after the last record.
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                    unsigned seed) {
  const std::size_t changed = LLVMFuzzerMutate(data, size, max_size);
  if (seed % 4 == 0) return changed;
  tolk::test::BlockRepair repair(reinterpret_cast<char*>(data), changed);
  if (seed % 32 == 1) repair.bend_a_length();
  const std::size_t whole = repair.run();
  return seed % 4 == 1 || whole == 0 ? changed : whole;
}
