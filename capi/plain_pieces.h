// Large calls of plain clients: pieces of "s_c_req_body" are joined for each connection, and the
// result goes back as such pieces before the last one is answered.
//
// Thread: the loop for receiving; the result is sent by the tasks that the answers to its pieces
// are. Owner: the request, until the last piece is answered.
// Failure: a client that does not take a piece within 500 ms gets no more of them.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "capi/messages.h"
#include "capi/peer.h"

namespace tolk {

class Core;

// The answer to a piece that is not the last one, and to the last one of a block that is no call.
Frame plain_piece_answer(Side side, const CallIds& ids);
Frame plain_malformed_answer(Side side, const CallIds& ids);

// Sends `records` in pieces, and answers the last piece of the call.
void send_plain_result(std::shared_ptr<Core> core, std::shared_ptr<Peer> peer, const CallIds& ids,
                       int call_id, std::string records);

}  // namespace tolk
