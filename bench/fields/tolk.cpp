#include <tolk/TolkParams.h>
#include <tolk/TolkValue.h>

#include "bench/fields/fields.h"

namespace bench {

std::uint64_t build_and_parse_fields() {
  TolkParams built;
  built.AddInt(7);
  built.AddBool(true);
  built.AddDouble(1.5);
  built.AddString(kText.c_str());
  built.AddStream(kBytes.data(), static_cast<long>(kBytes.size()));
  built.AddKeyValueInt("alpha", 1);
  built.AddKeyValueInt("beta", 2);
  built.AddKeyValueString("gamma", kText.c_str());
  TolkParams parsed;
  parsed.Parser(built.GetParamasPtr(), static_cast<int>(built.GetParamasSize()));
  long size = 0;
  parsed.GetValue(4)->GetStream(size);
  return static_cast<std::uint64_t>(parsed.GetValue(0)->GetInt() + size +
                                    parsed.GetMap("beta")->GetInt());
}

std::size_t build_and_parse_stream(const std::string& bytes) {
  TolkParams built;
  built.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  TolkParams parsed;
  parsed.Parser(built.GetParamasPtr(), static_cast<int>(built.GetParamasSize()));
  long size = 0;
  parsed.GetValue(0)->GetStream(size);
  return static_cast<std::size_t>(size);
}

}  // namespace bench
