/// What the example programs share around their calls: printing a call with its result, numbers and bytes as text,
/// reading and writing files.

#ifndef ZENTAK_EXAMPLES_EXAMPLE_SUPPORT_H
#define ZENTAK_EXAMPLES_EXAMPLE_SUPPORT_H

#include <iomanip>
#include <iostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "module/cryptoki.h"

using Bytes = std::vector<CK_BYTE>;

std::string hexadecimal(CK_ULONG number);
std::string hexadecimal(const Bytes& bytes);

/// The code's name in the standard, or its number where an example has no use for the name.
std::string returnCodeName(CK_RV code);

/// Prints the call and what it returned, and of a refusal that was expected that it was. Throws std::runtime_error when
/// it isn't what was expected.
void check(std::string_view call, CK_RV result, CK_RV expected = CKR_OK);

/// Prints a value that a call gave, under the line of the call.
template <typename Value>
void show(std::string_view name, const Value& value) {
    std::cout << "      " << std::left << std::setw(20) << name << value << '\n';
}

/// The text in a field of an information structure, which ends at a zero byte or at the end of the field.
std::string fieldText(std::span<const CK_BYTE> field);

std::string versionText(CK_VERSION version);

/// The whole file. Throws std::runtime_error if it can't be read.
Bytes readFile(const std::string& path);

/// Writes the file anew and says so. Throws std::runtime_error if it can't be written.
void writeFile(const std::string& path, const Bytes& bytes);

#endif
