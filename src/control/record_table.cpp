#include "control/record_table.h"

#include <algorithm>
#include <vector>

namespace control {

namespace {

using Row = std::vector<std::string>;

std::string Cell(const nlohmann::ordered_json &value) {
    if (value.is_null()) {
        return "-";
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

std::string RecordTable(std::span<const std::string_view> headings,
                        const nlohmann::ordered_json &records) {
    std::vector<Row> rows = {Row(headings.begin(), headings.end())};
    for (const nlohmann::ordered_json &record : records) {
        Row &row = rows.emplace_back();
        for (const nlohmann::ordered_json &value : record) {
            row.push_back(Cell(value));
        }
    }
    std::vector<size_t> widths(headings.size());
    for (const Row &row : rows) {
        std::ranges::transform(row, widths, widths.begin(), [](const auto &cell, size_t width) {
            return std::max(cell.size(), width);
        });
    }
    std::string text;
    for (const Row &row : rows) {
        text += text.empty() ? "" : "\n";
        for (size_t i = 0; i + 1 < row.size(); ++i) {
            text += row[i] + std::string(widths[i] + 2 - row[i].size(), ' ');
        }
        text += row.back();
    }
    return text;
}

}  // namespace control
