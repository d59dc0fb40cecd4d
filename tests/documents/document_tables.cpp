#include "document_tables.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace documents {

namespace {

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// The cells of a line "| a | b |"; none of any other line.
std::vector<std::string> cellsOf(std::string line) {
    std::vector<std::string> cells;
    if (line.size() < 2 || line.front() != '|' || line.back() != '|') return cells;
    line.erase(std::remove(line.begin(), line.end(), '`'), line.end());
    std::istringstream rest(line.substr(1));
    for (std::string cell; std::getline(rest, cell, '|');) cells.push_back(trimmed(cell));
    return cells;
}

bool isRuler(const std::vector<std::string>& cells) {
    return cells.front().find_first_not_of("-:") == std::string::npos && !cells.front().empty();
}

}  // namespace

std::string textOf(const std::string& path) {
    std::ifstream file(std::string(ZENTAK_SOURCE_FOLDER) + '/' + path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<Row> rowsWith(const std::string& column, const std::string& path) {
    std::vector<Row> rows;
    std::vector<std::string> head;
    std::istringstream lines(textOf(path));
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> cells = cellsOf(line);
        if (cells.empty()) {
            head.clear();
        } else if (head.empty()) {
            head = cells;
        } else if (!isRuler(cells) && std::find(head.begin(), head.end(), column) != head.end()) {
            if (cells.size() != head.size()) throw std::runtime_error(path + ": not a cell for each column: " + line);
            Row row;
            for (std::size_t i = 0; i < cells.size(); ++i) row[head[i]] = cells[i];
            rows.push_back(row);
        }
    }
    if (rows.empty()) throw std::runtime_error(path + " has no table with the column " + column);
    return rows;
}

std::vector<std::string> itemsOf(const std::string& cell) {
    std::vector<std::string> items;
    std::istringstream rest(cell);
    for (std::string item; std::getline(rest, item, ',');) items.push_back(trimmed(item));
    return items;
}

std::map<std::string, CK_ULONG> constantsWith(const std::string& prefix) {
    std::map<std::string, CK_ULONG> constants;
    std::istringstream lines(textOf("src/module/cryptoki_constants.h") + textOf("src/module/cryptoki_mechanisms.h"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string define;
        std::string name;
        std::string value;
        words >> define >> name >> value;
        if (define == "#define" && name.compare(0, prefix.size(), prefix) == 0 && value.compare(0, 2, "0x") == 0) {
            constants[name] = static_cast<CK_ULONG>(std::stoul(value, nullptr, 16));
        }
    }
    return constants;
}

std::string hexadecimalNumber(CK_ULONG number) {
    std::ostringstream out;
    out << "0x" << std::hex << std::uppercase << number;
    return out.str();
}

}  // namespace documents
