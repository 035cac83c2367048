#include <msgpack.hpp>

#include "bench/fields/fields.h"

namespace bench {
namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

void pack_bytes(Packer& packer, const std::string& bytes) {
  packer.pack_bin(static_cast<std::uint32_t>(bytes.size()));
  packer.pack_bin_body(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

}  // namespace

std::uint64_t build_and_parse_fields() {
  msgpack::sbuffer encoded;
  Packer packer(encoded);
  packer.pack_array(6);
  packer.pack_int(7);
  packer.pack_true();
  packer.pack_double(1.5);
  packer.pack(kText);
  pack_bytes(packer, kBytes);
  packer.pack_map(3);
  packer.pack("alpha").pack_int(1);
  packer.pack("beta").pack_int(2);
  packer.pack("gamma").pack(kText);
  const msgpack::object_handle handle = msgpack::unpack(encoded.data(), encoded.size());
  const msgpack::object_array fields = handle.get().via.array;
  const msgpack::object_map named = fields.ptr[5].via.map;
  return fields.ptr[0].via.u64 + fields.ptr[4].via.bin.size + named.ptr[1].val.via.u64;
}

std::size_t build_and_parse_stream(const std::string& bytes) {
  msgpack::sbuffer encoded;
  Packer packer(encoded);
  pack_bytes(packer, bytes);
  return msgpack::unpack(encoded.data(), encoded.size()).get().via.bin.size;
}

}  // namespace bench
