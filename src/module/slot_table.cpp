#include "module/slot_table.h"

#include <iterator>

namespace zentak {

const TokenInfo* findSlot(const std::map<std::string, TokenInfo>& slotTable, CK_SLOT_ID slotID) {
    if (slotID < firstSlotId || slotID - firstSlotId >= slotTable.size()) {
        return nullptr;
    }
    return &std::next(slotTable.begin(), static_cast<std::ptrdiff_t>(slotID - firstSlotId))->second;
}

bool isFips140Token(const TokenInfo& token) {
    return token.model.size() <= 2 || token.model[2] != '1';
}

}  // namespace zentak
