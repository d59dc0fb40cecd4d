/// The documents and sources of this checkout, read for tests that compare them with the module.

#ifndef ZENTAK_TESTS_DOCUMENTS_DOCUMENT_TABLES_H
#define ZENTAK_TESTS_DOCUMENTS_DOCUMENT_TABLES_H

#include <map>
#include <string>
#include <vector>

#include "module/cryptoki.h"

namespace documents {

/// The text of a file, named by its path in the checkout. Throws when there is none.
std::string textOf(const std::string& path);

/// A row of a table by the names of its columns. Cells are without backticks.
using Row = std::map<std::string, std::string>;

/// The rows, in order, of all tables in a Markdown file that have the column. Throws when there are none, and when a
/// row has more or fewer cells than its head.
std::vector<Row> rowsWith(const std::string& column, const std::string& path);

/// The items of a cell such as "SIGN, VERIFY"; none of an empty cell.
std::vector<std::string> itemsOf(const std::string& cell);

/// The constants of the Cryptoki header whose names begin with `prefix`: name and value. Of two names for one value
/// both are there; those that are made of others (arrays of attributes) aren't.
std::map<std::string, CK_ULONG> constantsWith(const std::string& prefix);

/// A number as the documents show it: 0x1041.
std::string hexadecimalNumber(CK_ULONG number);

}  // namespace documents

#endif
