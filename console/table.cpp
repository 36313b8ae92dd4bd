#include "console/table.h"

#include <algorithm>

#include "host/world/printable.h"

namespace console
{

namespace
{

constexpr size_t column_gap = 2;

std::vector<size_t> column_widths(const table_rows& rows)
{
    std::vector<size_t> widths;
    for (const table_row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], world::columns_of(row[i]));
    }
    return widths;
}

} // namespace

std::string cell_text(const nlohmann::json& value)
{
    if (value.is_null()) return "-";
    if (value.is_string()) return world::printable(value.get<std::string>());
    return value.dump();
}

table_row make_row(const nlohmann::json& object, const std::vector<const char*>& keys)
{
    table_row row;
    for (const char* key : keys) row.push_back(cell_text(object.value(key, nlohmann::json())));
    return row;
}

table_rows make_rows(const nlohmann::json& objects, const table_row& heading, const std::vector<const char*>& keys)
{
    table_rows rows = {heading};
    for (const nlohmann::json& object : objects) rows.push_back(make_row(object, keys));
    return rows;
}

std::string format_table(const table_rows& rows, size_t indent)
{
    const std::vector<size_t> widths = column_widths(rows);
    std::string text;
    for (const table_row& row : rows) {
        std::string line(indent, ' ');
        for (size_t i = 0; i < row.size(); ++i) {
            const size_t padding = widths[i] - world::columns_of(row[i]) + column_gap;
            line += row[i] + std::string(padding, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

void show_json(std::ostream& output, const nlohmann::json& answer, int indent)
{
    output << world::printable_json(answer.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace)) << '\n';
}

} // namespace console
