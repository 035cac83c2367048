// The values that the demo sends, and functions that make, read and show them.
//
// Thread: any. Owner: values. Failure: a missing value, or one of another type, is shown as such.
#pragma once

#include <tolk/tolk.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace demo {

// A handler made from a function.
class Method final : public IServerMethod {
 public:
  using Function = std::function<void(int id, TolkParams* in, TolkParams* out)>;
  explicit Method(Function function) : function_(std::move(function)) {}
  void callback(int id, TolkParams* in, TolkParams* out) override { function_(id, in, out); }

 private:
  Function function_;
};

// A readable form of a value: `true`, `41`, `2.5`, `"ada"`, `00 ff 10`, `[1, "two"]`, or
// `nothing`.
std::string shown(const TolkValue* value);
std::string shown(const TolkParams* reply);

// As shown, but of one positional or keyed value of a reply; `no reply` when there is none.
std::string value_at(TolkParams* reply, int position);
std::string value_of(TolkParams* reply, const char* key);

int int_at(TolkParams* block, int position);
std::string text_at(TolkParams* block, int position);

// One value of every type, and what the method "mirror" returns for it.
struct MirrorRow {
  const char* type;
  std::string sent;
  std::string expected;
};
void add_values(TolkParams& block);
void mirror(TolkParams* in, TolkParams* out);
const std::vector<MirrorRow>& mirror_rows();
// The reply's value in the same row.
std::string mirrored(TolkParams* reply, std::size_t row);

// 64-bit FNV-1a in hexadecimal.
std::string digest(std::string_view bytes);
// Pseudo-random bytes, which do not compress.
std::string noise(std::size_t count);

}  // namespace demo
