/// What every operation at the boundary needs: no exception and no OpenSSL error leaves it, and arguments come as
/// pointers and lengths that may be anything.

#ifndef ZENTAK_SOFTTOKEN_BOUNDARY_BOUNDARY_H
#define ZENTAK_SOFTTOKEN_BOUNDARY_BOUNDARY_H

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string_view>

#include "platform/bytes.h"
#include "platform/errors.h"
#include "platform/openssl_support.h"

namespace softtoken {

/// Runs an operation's body and answers 0 or the number of what it threw.
template <typename Body>
int statusOf(Body&& body) noexcept {
    const ErrorQueueGuard guard;
    try {
        body();
        return static_cast<int>(Error::none);
    } catch (const Failure& failure) {
        return static_cast<int>(failure.error);
    } catch (const std::bad_alloc&) {
        return static_cast<int>(Error::outOfMemory);
    } catch (...) {
        return static_cast<int>(Error::internal);
    }
}

/// Runs the body of an operation that answers a value, which is empty when the body throws.
template <typename Body>
auto valueOf(Body&& body) noexcept -> decltype(body()) {
    const ErrorQueueGuard guard;
    try {
        return body();
    } catch (...) {
        return {};
    }
}

inline void requireArgument(bool valid) {
    if (!valid) {
        throw Failure(Error::invalidArgument, "an argument is null, negative or out of range");
    }
}

/// Null counts as the empty text.
inline std::string_view textOf(const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

/// Null is fine for no bytes at all.
inline ByteView bytesOf(const unsigned char* data, int length) {
    requireArgument(length >= 0 && (data != nullptr || length == 0));
    return {data, static_cast<std::size_t>(length)};
}

inline Reference referenceOf(const unsigned char* reference) {
    requireArgument(reference != nullptr);
    Reference copy{};
    std::copy_n(reference, copy.size(), copy.begin());
    return copy;
}

/// The text in a record's field, which must be terminated within it.
template <std::size_t size>
std::string_view fieldText(const char (&field)[size]) {
    const auto end = std::find(field, field + size, '\0');
    requireArgument(end != field + size);
    return {field, static_cast<std::size_t>(end - field)};
}

/// The bytes in a record's field, as many as its length says.
template <std::size_t size>
ByteView fieldBytes(const unsigned char (&field)[size], int length) {
    requireArgument(length >= 0 && static_cast<std::size_t>(length) <= size);
    return {field, static_cast<std::size_t>(length)};
}

/// Hands a result over in memory that the caller frees.
inline void giveAllocated(ByteView result, unsigned char** output, int* outputLength) {
    auto* const memory = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(result.size(), 1)));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    std::copy(result.begin(), result.end(), memory);
    *output = memory;
    *outputLength = static_cast<int>(result.size());
}

}  // namespace softtoken

#endif
