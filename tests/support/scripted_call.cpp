#include "scripted_call.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <thread>

namespace scripted {
namespace {

constexpr int longestShown = 4096;
constexpr int shownOfLonger = 8;
constexpr int keyReferenceLength = 16;

std::string hexadecimal(const unsigned char* value, int length) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < length; ++i) {
        text += digits[value[i] >> 4U];
        text += digits[value[i] & 15U];
    }
    return text;
}

std::string shownBytes(const unsigned char* value, int length) {
    if (value == nullptr) return "null";
    if (length < 0) return "<?>";
    if (length > longestShown) return "<" + hexadecimal(value, shownOfLonger) + "...>";
    return "<" + hexadecimal(value, length) + ">";
}

std::string shownBytes(const Bytes& value) {
    static const unsigned char none = 0;
    return shownBytes(value.empty() ? &none : value.data(), static_cast<int>(value.size()));
}

std::string shownText(std::string_view value) {
    return '"' + std::string(value) + '"';
}

/// The text in a field that ends at a zero or at the field's end.
template <std::size_t Size>
std::string shownField(const char (&field)[Size]) {
    return shownText(std::string_view(field, static_cast<std::size_t>(std::find(field, field + Size, '\0') - field)));
}

void strike(const Fault& fault) {
    if (fault.delay.count() > 0) std::this_thread::sleep_for(fault.delay);
    if (fault.action) fault.action();
    switch (fault.thrown) {
        case Throw::nothing:
            break;
        case Throw::badAlloc:
            throw std::bad_alloc();
        case Throw::exception:
            throw std::runtime_error("thrown by the scripted library");
        case Throw::somethingElse:
            throw 42;
    }
}

}  // namespace

Call::Call(const char* operation, Device& device)
    : operation_(operation), device_(device), hidden_(device.hidden()), lock_(hidden_.mutex) {
    if (device_.records) text_ = std::string(operation) + "(";
}

Call& Call::argument(const char* text) {
    return argument([&] { return std::string(text); });
}

template <typename MakeText>
Call& Call::argument(const MakeText& makeText) {
    if (device_.records) {
        text_ += (first_ ? "" : ", ") + makeText();
        first_ = false;
    }
    return *this;
}

Call& Call::text(const char* value) {
    return argument([&] { return value == nullptr ? "null" : shownText(value); });
}

Call& Call::password(const char* value) {
    hidden_.passwordGiven = value;
    return text(value);
}

Call& Call::bytes(const unsigned char* value, int length) {
    return argument([&] { return shownBytes(value, length) + ", " + std::to_string(length); });
}

Call& Call::number(long long value) {
    return argument([&] { return std::to_string(value); });
}

Call& Call::boolean(bool value) {
    return argument(value ? "true" : "false");
}

Call& Call::inOut(const int* value) {
    return argument([&] { return value == nullptr ? "null" : "*" + std::to_string(*value); });
}

Call& Call::out(const void* area) {
    return argument(area == nullptr ? "null" : "out");
}

Call& Call::keyReference(const unsigned char* value) {
    hidden_.keyReferenceGiven = value;
    return argument([&] { return shownBytes(value, keyReferenceLength); });
}

Call& Call::instance(const void* value) {
    if (value == nullptr) return argument("null");
    hidden_.strangeInstances += value == hidden_.instance ? 0 : 1;
    return argument(value == hidden_.instance ? "instance" : "foreign");
}

Call& Call::context(const void* value) {
    if (value == nullptr) return argument("null");
    return argument([&] {
        const auto found = std::find_if(hidden_.contexts.begin(), hidden_.contexts.end(),
                                        [&](const unsigned char& mark) { return &mark == value; });
        return found == hidden_.contexts.end() ? "foreign"
                                               : "context#" + std::to_string(found - hidden_.contexts.begin() + 1);
    });
}

Call& Call::texts(const std::vector<std::string>& values) {
    std::string list;
    for (const std::string& value : values) list += (list.empty() ? "" : ", ") + shownText(value);
    return argument([&] { return "[" + list + "]"; });
}

Call& Call::certificate(const ZentakCertificate* value) {
    if (value == nullptr) return argument("null");
    return argument([&] {
        return "{der=" + shownBytes(value->der, value->derLength) +
               ", objectId=" + shownBytes(value->objectId, value->objectIdLength) +
               ", label=" + shownField(value->label) + "}";
    });
}

Call& Call::pfx(const ImportPFXDetails* value) {
    if (value == nullptr) return argument("null");
    std::string components;
    for (const Bytes& component : value->components) {
        components += (components.empty() ? "" : ", ") + shownBytes(component);
    }
    return argument([&] {
        return "{components=[" + components + "], keyUsage=" + std::to_string(value->keyUsage) +
               ", label=" + shownText(value->label) + ", objectId=" + shownBytes(value->objectId) +
               ", extra=" + shownBytes(value->extra) + "}";
    });
}

Call& Call::keyPair(const ZentakKeyPair* value) {
    if (value == nullptr) return argument("null");
    return argument([&] {
        return "{objectId=" + shownBytes(value->objectId, value->objectIdLength) +
               ", objectIdLength=" + std::to_string(value->objectIdLength) + ", alias=" + shownField(value->alias) +
               ", keyUsage=" + std::to_string(value->keyUsage) + ", keyType=" + std::to_string(value->keyType) + "}";
    });
}

std::optional<int> Call::recordAndStrike() {
    if (device_.records) (operation_ == poll ? hidden_.polls : hidden_.calls).push_back(text_ + ")");
    ++hidden_.counts[operation_];
    std::list<Device::Hidden::PendingFault> striking;
    for (auto pending = hidden_.faults.begin(); pending != hidden_.faults.end();) {
        const auto next = std::next(pending);
        if (pending->fault.operation == operation_ && --pending->callsToGo == 0) {
            striking.splice(striking.end(), hidden_.faults, pending);
        }
        pending = next;
    }
    lock_.unlock();

    std::optional<int> result;
    for (const Device::Hidden::PendingFault& pending : striking) {
        strike(pending.fault);
        if (pending.fault.result) result = pending.fault.result;
    }
    return result;
}

int Call::configuredResult(int defaultResult) const {
    if (operation_ == poll) {
        // A test may be changing the results right now.
        return defaultResult;
    }
    const auto found = device_.results.find(operation_);
    return found == device_.results.end() ? defaultResult : found->second;
}

}  // namespace scripted
