#include "bench/fields/fields.h"
#include "fields.pb.h"

namespace bench {

std::uint64_t build_and_parse_fields() {
  std::string encoded;
  {
    rpc::Fields built;
    built.set_number(7);
    built.set_flag(true);
    built.set_real(1.5);
    built.set_text(kText);
    built.set_bytes(kBytes);
    (*built.mutable_numbers())["alpha"] = 1;
    (*built.mutable_numbers())["beta"] = 2;
    (*built.mutable_texts())["gamma"] = kText;
    built.SerializeToString(&encoded);
  }
  rpc::Fields parsed;
  if (!parsed.ParseFromString(encoded)) return 0;
  return static_cast<std::uint64_t>(parsed.number() + parsed.numbers().at("beta")) +
         parsed.bytes().size();
}

std::size_t build_and_parse_stream(const std::string& bytes) {
  std::string encoded;
  {
    rpc::Fields built;
    built.set_bytes(bytes);
    built.SerializeToString(&encoded);
  }
  rpc::Fields parsed;
  return parsed.ParseFromString(encoded) ? parsed.bytes().size() : 0;
}

}  // namespace bench
