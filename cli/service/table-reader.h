// Reads one table of a TOML file, key by key, and finds unknown keys.
#pragma once

#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include <toml++/toml.h>

#include "host/result.h"

namespace cli
{

// Each call that reads a key also makes this key valid in the table. After an error, reading continues, with the
// default instead of the wrong value. finish() returns the first error. An error begins with "FILE:LINE: " and says
// which values are valid. The table must outlive its reader.
class table_reader
{
  public:
    table_reader(const toml::table& table, std::string file) : table_(table), file_(std::move(file)) {}

    // Returns the node with that key, or null.
    const toml::node* find(const std::string& key);

    // The functions return the value of a key, or the default if the key is missing.
    std::string text(const std::string& key, const std::string& default_text);
    std::string word(const std::string& key, const char* default_word, std::initializer_list<std::string> valid_words);
    int number(const std::string& key, int default_number, int least, int most);

    // Returns a table inside this table, or null.
    const toml::table* table(const std::string& key);

    // Returns the tables of an array that is written as [[key]].
    std::vector<const toml::table*> tables(const std::string& key);

    // These functions store an error for finish(). refuse() puts the place of `node` before the reason. The error for
    // keep() must already begin with its place.
    void refuse(const toml::node& node, const std::string& reason);
    void keep(const ats::error& error);

    // Returns the first error. A key that no call has read is also an error, so call finish() last.
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
