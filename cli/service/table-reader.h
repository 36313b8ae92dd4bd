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

// Every read call names a key that is valid in the table. Errors do not stop the reading: a wrong value counts as the
// default, the first error is kept, and finish() returns it. An error begins with "FILE:LINE: " and says what would be
// right. The table outlives its reader.
class table_reader
{
  public:
    table_reader(const toml::table& table, std::string file) : table_(table), file_(std::move(file)) {}

    // The node of that key, or null.
    const toml::node* find(const std::string& key);

    std::string text(const std::string& key, const std::string& default_text);
    std::string word(const std::string& key, const char* default_word, std::initializer_list<std::string> valid_words);
    int number(const std::string& key, int default_number, int least, int most);

    // A table inside of this one, or null.
    const toml::table* table(const std::string& key);

    // The tables of an [[array]].
    std::vector<const toml::table*> tables(const std::string& key);

    // Keep an error about a node, or one that has its place already.
    void refuse(const toml::node& node, const std::string& reason);
    void keep(const ats::error& error);

    // Call this last. Returns the first error; a key that no call has named is one.
    ats::result<> finish();

    // "FILE:LINE: "
    std::string place_of(const toml::node& node) const;

  private:
    const toml::table& table_;
    const std::string file_;
    std::set<std::string, std::less<>> valid_keys_;
    ats::result<> result_;
};

} // namespace cli
