/// What a Cryptoki header says, as tables: the values of its constants and the layout of its structures.

#ifndef ZENTAK_TESTS_UNIT_CRYPTOKI_TABLES_H
#define ZENTAK_TESTS_UNIT_CRYPTOKI_TABLES_H

#include <cstddef>
#include <map>
#include <string>

/// Values by name. A name that the header doesn't define isn't there.
using Constants = std::map<std::string, unsigned long long>;

/// "CK_INFO" is the structure's size, "CK_INFO.flags" a field's offset, "CK_INFO.flags#" the field's size.
using Layout = std::map<std::string, std::size_t>;

Constants ourConstants();
Constants theirConstants();
Constants windowsFormConstants();

Layout ourLayout();
Layout theirLayout();
Layout windowsFormLayout();

#endif
