// Decodes the message in the payload of a frame.
//
// Thread: any. Owner: the texts of a Message point into the payload. Failure: a Flaw that says
// which byte is wrong and why; std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/tolk/wire/decoded_block.h"

namespace tolk::tool {

// What a message is for. A piece is a call that carries a part of large data.
enum class Kind { call, post, reply, piece, nameless };

const char* to_string(Kind kind);

struct Message {
  Kind kind = Kind::nameless;
  std::string_view method;  // of a piece: the method that receives the large data, if it is named
  std::optional<int> call_id;
  std::optional<std::string_view> token;
  DecodedBlock arguments;  // the nested block of a call; the records of a reply after its envelope
  std::optional<Flaw> flaw;  // of the payload; offsets count from its first byte
};

Message decode_message(std::string_view payload);

// The error that a reply reports; empty if it reports none.
std::string failure_in(const Message& reply);

}  // namespace tolk::tool
