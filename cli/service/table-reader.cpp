#include "cli/service/table-reader.h"

#include <algorithm>

#include "console/errors.h"

namespace cli
{

const toml::node* table_reader::find(const std::string& key)
{
    valid_keys_.insert(key);
    return table_.get(key);
}

std::string table_reader::text(const std::string& key, const std::string& default_text)
{
    const toml::node* node = find(key);
    if (!node) return default_text;
    if (node->is_string()) return node->as_string()->get();
    refuse(*node, "'" + key + "' must be a text in quotation marks");
    return default_text;
}

std::string table_reader::word(const std::string& key, const char* default_word,
                               std::initializer_list<std::string> valid_words)
{
    const std::string word = text(key, default_word);
    if (std::ranges::count(valid_words, word) > 0) return word;
    std::string choices;
    for (const std::string& choice : valid_words) choices += (choices.empty() ? "" : " or ") + console::quote(choice);
    refuse(*find(key), "'" + key + "' must be " + choices);
    return default_word;
}

int table_reader::number(const std::string& key, int default_number, int least, int most)
{
    const toml::node* node = find(key);
    if (!node) return default_number;
    const auto* const integer = node->as_integer();
    if (integer && integer->get() >= least && integer->get() <= most) return static_cast<int>(integer->get());
    refuse(*node, "'" + key + "' must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    return default_number;
}

const toml::table* table_reader::table(const std::string& key)
{
    const toml::node* node = find(key);
    if (!node) return nullptr;
    if (!node->is_table()) refuse(*node, "'" + key + "' must be a table");
    return node->as_table();
}

std::vector<const toml::table*> table_reader::tables(const std::string& key)
{
    const toml::node* node = find(key);
    if (!node) return {};
    if (!node->is_array_of_tables()) {
        refuse(*node, "'" + key + "' must be written as [[" + key + "]] tables");
        return {};
    }
    std::vector<const toml::table*> tables;
    for (const toml::node& element : *node->as_array()) tables.push_back(element.as_table());
    return tables;
}

void table_reader::refuse(const toml::node& node, const std::string& reason)
{
    keep({ats::error_kind::invalid, place_of(node) + reason});
}

void table_reader::keep(const ats::error& error)
{
    if (result_) result_ = tl::make_unexpected(error);
}

ats::result<> table_reader::finish()
{
    for (const auto& [key, value] : table_) {
        if (valid_keys_.contains(key.str())) continue;
        std::string keys;
        for (const std::string& valid_key : valid_keys_) keys += (keys.empty() ? "" : ", ") + valid_key;
        keep({ats::error_kind::invalid, file_ + ":" + std::to_string(key.source().begin.line) + ": unknown key " +
                                            console::quote(std::string(key.str())) + "; valid here are " + keys});
    }
    return result_;
}

std::string table_reader::place_of(const toml::node& node) const
{
    return file_ + ":" + std::to_string(node.source().begin.line) + ": ";
}

} // namespace cli
