// A block of values.
//
// Thread: one at a time. Owner: its own memory, or a share of a message. Failure: std::bad_alloc.
#pragma once

#include <tolk/c.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capi/type_notes.h"
#include "params/shared_bytes.h"

struct tolk_block {
  struct Item {
    tolk_kind kind = TOLK_MISSING;
    std::int64_t number = 0;
    std::string text;
  };

  enum class Reserved { kept, dropped };
  struct Received;

  tolk_status status() const noexcept { return TOLK_OK; }
  tolk::SharedBytes share() const;
  std::string types() const { return type_notes.text(); }
  static Received of_message(tolk::SharedBytes payload, std::string_view types, Reserved reserved);

  std::string encoded;
  std::vector<Item> items;
  tolk::TypeNotes type_notes;
};

struct tolk_block::Received {
  std::unique_ptr<tolk_block> block;
  std::size_t wrong_at = TOLK_NOWHERE;

  bool is_well_formed() const { return wrong_at == TOLK_NOWHERE; }
};
