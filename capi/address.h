// The text of an address: "pipe:5000", "tcp4:127.0.0.1:5000", "tcp6:[::1]:5000", "fd:3".
//
// Thread: any. Owner: an address owns its texts. Failure: a text that says what is wrong, for the
// host's error.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "transport/endpoint.h"

namespace tolk {

struct Address {
  Endpoint endpoint;
  std::optional<int> descriptor;  // a listening socket that the process inherited; no endpoint then

  // With numbers instead of "localhost".
  std::string text() const;
};

enum class AddressUse { connect, listen };

struct AddressParse {
  std::optional<Address> address;
  const char* wrong = nullptr;  // why there is none
};

AddressParse parse_address(std::string_view text, AddressUse use);

}  // namespace tolk
