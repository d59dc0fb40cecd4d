/// What became of a request to the device library.

#ifndef ZENTAK_DEVICE_RESULT_H
#define ZENTAK_DEVICE_RESULT_H

#include <cstddef>
#include <limits>

namespace zentak::device {

/// The most bytes that one argument of the device library can have: its lengths are int.
inline constexpr std::size_t longestInput = std::numeric_limits<int>::max();

/// Success, a refusal by the device library, or input that it was never asked about. Which return code and which line
/// in the log that makes is the caller's decision.
class [[nodiscard]] Result {
public:
    /// From a status result of the library: 0 is success.
    static constexpr Result of(int number) { return {number == 0 ? Kind::success : Kind::refusal, number}; }
    /// A refusal although the library reports `number`: it gave no usable output.
    static constexpr Result refusal(int number) { return {Kind::refusal, number}; }
    /// Input of more than `longestInput` bytes.
    static constexpr Result inputTooLong() { return {Kind::inputTooLong, 0}; }

    constexpr explicit operator bool() const { return kind_ == Kind::success; }
    constexpr bool isInputTooLong() const { return kind_ == Kind::inputTooLong; }
    /// An operation that stores something found no room for it.
    constexpr bool isDeviceFull() const { return number_ == 40 || number_ == 242; }
    /// The device doesn't answer.
    constexpr bool isDeviceSilent() const { return number_ == 48; }
    /// The library's number, for the log.
    constexpr int number() const { return number_; }

private:
    enum class Kind { success, refusal, inputTooLong };

    constexpr Result(Kind kind, int number) : kind_(kind), number_(number) {}

    Kind kind_;
    int number_;
};

}  // namespace zentak::device

#endif
