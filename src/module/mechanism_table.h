/// Lookup in the tables of mechanisms, each of which belongs to a family of functions.

#ifndef ZENTAK_MODULE_MECHANISM_TABLE_H
#define ZENTAK_MODULE_MECHANISM_TABLE_H

#include <array>
#include <cstddef>

#include "module/cryptoki.h"

namespace zentak {

/// The row of `type`, null for a mechanism that isn't in the table.
template <typename Row, std::size_t Count>
const Row* findMechanism(const std::array<Row, Count>& table, CK_MECHANISM_TYPE type) {
    for (const Row& row : table) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace zentak

#endif
