/// Slot IDs, their lookup, and what tells a FIPS 140-3 token.

#ifndef ZENTAK_MODULE_SLOT_TABLE_H
#define ZENTAK_MODULE_SLOT_TABLE_H

#include <map>
#include <string>

#include "device/zentak_dsc_library.h"
#include "module/cryptoki.h"

namespace zentak {

/// The n-th usable token of a slot list, counted from 0, gets this number plus n.
inline constexpr CK_SLOT_ID firstSlotId = 0x50000001;

/// The token of a slot, null for an ID that names none. IDs are handed out in the device library's order but resolved
/// by position in the table's own order, so that they can name another token than the one listed; applications depend
/// on it.
const TokenInfo* findSlot(const std::map<std::string, TokenInfo>& slotTable, CK_SLOT_ID slotID);

/// Whether the FIPS policy applies: to every token but those with a "1" as the third character of their model.
bool isFips140Token(const TokenInfo& token);

}  // namespace zentak

#endif
