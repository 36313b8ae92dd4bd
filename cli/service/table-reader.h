// Reads one table of a TOML file, key by key.
#pragma once

#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include <toml++/toml.h>

#include "host/result.h"

namespace cli
{

// Each read call defines a valid key of the table. After an error, reading continues: the default replaces a wrong
// value. The first error is kept, and finish() returns it. An error begins with "FILE:LINE: " and says what would be
// right. The table must outlive its reader.
class table_reader
{
  public:
    table_reader(const toml::table& table, std::string file) : table_(table), file_(std::move(file)) {}

    // The node with that key, or null.
    const toml::node* find(const std::string& key);

    std::string text(const std::string& key, const std::string& default_text);
    std::string word(const std::string& key, const char* default_word, std::initializer_list<std::string> valid_words);
    int number(const std::string& key, int default_number, int least, int most);

    // A table inside this one, or null.
    const toml::table* table(const std::string& key);

    // The tables of an [[array]].
    std::vector<const toml::table*> tables(const std::string& key);

    // These functions keep an error about a node, or an error that already has its place.
    void refuse(const toml::node& node, const std::string& reason);
    void keep(const ats::error& error);

    // Call it last. Returns the first error. A key that no call has read is an error.
    ats::result<> finish();

    // Formats the place of a node as "FILE:LINE: ".
    std::string place_of(const toml::node& node) const;

  private:
    const toml::table& table_;
    const std::string file_;
    std::set<std::string, std::less<>> valid_keys_;
    ats::result<> result_;
};

} // namespace cli
