/// A token as callers at the boundary are given it.

#ifndef ZENTAK_SOFTTOKEN_TOKEN_SNAPSHOT_H
#define ZENTAK_SOFTTOKEN_TOKEN_SNAPSHOT_H

#include <memory>
#include <vector>

#include "device/zentak_dsc_library.h"
#include "store/token_data.h"

namespace softtoken {

/// What a token's file said, and the same as records of the boundary. Isn't changed any more.
struct Snapshot {
    std::shared_ptr<const TokenData> token;
    std::vector<ZentakKeyPair> keyPairs;
    std::vector<ZentakCertificate> certificates;
};

std::shared_ptr<Snapshot> snapshotOf(std::shared_ptr<const TokenData> token);

}  // namespace softtoken

#endif
