// Rule records in Slate blocks (layout in SlateLayout.h): written by the writer into a block
// no reader can reach yet, read back from a private copy of a block's words.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "host/flowspec/Rule.h"

namespace Mnemo::SlateRecord {

// Stores `rule` into the record part of the block at `block` (whose size word is already
// set and large enough), with relaxed atomic stores: a reader that still copies the block's
// previous contents must not race on plain memory.
void store(std::uint32_t* block, Flowspec::Rule const& rule);

// The rule held in `words`, a copy of a whole block starting at its size word; empty when the
// words do not form a record (a size, key length, address family or key that is off).
std::optional<Flowspec::Rule> decode(std::span<std::uint32_t const> words);

// True when the record's key is exactly `key`; `words` as for decode. Cheap: no decoding.
bool keyEquals(std::span<std::uint32_t const> words, std::span<std::uint32_t const> key);

} // namespace Mnemo::SlateRecord
