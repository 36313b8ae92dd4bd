#include "console/table.h"

#include <algorithm>

#include "host/world/printable.h"

namespace console
{

std::string format_table(const std::vector<std::vector<std::string>>& rows, int indent)
{
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], world::columns_of(row[i]));
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line(static_cast<size_t>(indent), ' ');
        for (size_t i = 0; i < row.size(); ++i)
            line += row[i] + std::string(widths[i] - world::columns_of(row[i]) + 2, ' ');
        text += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
    }
    return text;
}

void show_json(std::ostream& output, const nlohmann::json& answer, int indent)
{
    output << world::printable_json(answer.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace)) << '\n';
}

} // namespace console
