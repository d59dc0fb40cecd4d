/// The handles by which callers at the boundary name an instance.

#ifndef ZENTAK_SOFTTOKEN_TOKEN_INSTANCE_HANDLES_H
#define ZENTAK_SOFTTOKEN_TOKEN_INSTANCE_HANDLES_H

#include <memory>

#include "token/instance.h"

namespace softtoken {

/// Makes an instance for the user's store and answers its handle.
void* openInstance();
/// Throws Error::unknownInstance for null, a released handle and anything else.
std::shared_ptr<Instance> findInstance(void* handle);
/// Unknown handles are ignored.
void closeInstance(void* handle);

}  // namespace softtoken

#endif
