/// What a host asks of a token, operation by operation, through the function list alone: so the same table measures the
/// module on any device library, and another PKCS #11 module beside it.

#ifndef ZENTAK_BENCH_HOST_OPERATIONS_H
#define ZENTAK_BENCH_HOST_OPERATIONS_H

#include <functional>
#include <string>
#include <vector>

#include "module_client.h"

namespace bench {

/// The objects that the operations work on: the last RSA key pair, the last P-256 key pair (if there are two) and the
/// last certificate of a token whose keys lie as `makeKeys` says. Who looks for them from the front walks over all
/// others.
struct Subjects {
    Subjects(const UserSession& userSession, std::size_t keyPairs, std::size_t certificates);

    CK_SESSION_HANDLE session;
    std::string rsaId;
    std::string rsaLabel;
    CK_OBJECT_HANDLE rsaPrivateKey;
    CK_OBJECT_HANDLE rsaPublicKey;
    CK_OBJECT_HANDLE ecPrivateKey;
    CK_OBJECT_HANDLE ecPublicKey;
    CK_OBJECT_HANDLE certificate;  ///< invalid when there are none
};

struct Operation {
    enum class Kind {
        stored,      ///< only hands out what the module has
        changing,    ///< changes the token
        other,       ///< any other
        wholeToken,  ///< grows with the token because it asks for each object
        uncompared,  ///< says nothing, or nothing new, beside another module
        filling,     ///< the same, and leaves something on the token that no host can take away
    };

    const char* name;
    Kind kind;
    /// Makes the inputs, and what is to be measured: it throws when a call fails. The subjects outlive it.
    std::function<void()> (*prepare)(const Subjects& subjects);
};

const std::vector<Operation>& hostOperations();

/// Throws std::runtime_error for an unknown name.
const Operation& hostOperation(const std::string& name);

}  // namespace bench

#endif
