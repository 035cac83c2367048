// The blocks that the benchmarks work on: what a call of each size typically carries.
//
// Thread: any. Owner: the caller. Failure: std::bad_alloc.
#pragma once

#include <tolk/ListParams.h>
#include <tolk/TolkParams.h>

#include <string>

namespace bench {

// A few numbers.
inline void fill_small(TolkParams& block) {
  block.AddInt(7);
  block.AddBool(true);
  block.AddKeyValueInt("row", 1200);
}

// Named fields as a form or a record has them, and a list.
inline void fill_typical(TolkParams& block) {
  block.AddKeyValueString("name", "a name that is longer than fifteen bytes");
  block.AddKeyValueString("place", "short");
  block.AddKeyValueInt("width", 1920);
  block.AddKeyValueInt("height", 1080);
  block.AddKeyValueDouble("scale", 1.25);
  block.AddKeyValueBool("visible", true);
  block.AddKeyValueStream("digest", "\1\2\3\4\5\6\7\0\1\2\3\4\5\6\7\0", 16);
  ListParams* const list = TolkParams::CreateListParams();
  for (int i = 0; i < 8; ++i) list->AddInt(i);
  block.AddList(list);
  block.AddString("a positional text");
  block.AddInt(-1);
}

// A thousand named values and 64 kB of bytes.
inline void fill_large(TolkParams& block) {
  for (int i = 0; i < 1000; ++i) {
    const std::string key = "key number " + std::to_string(i);
    block.AddKeyValueInt(key.c_str(), i);
  }
  const std::string bytes(65536, 'x');
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
}

}  // namespace bench
