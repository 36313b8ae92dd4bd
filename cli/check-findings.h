// The findings of `ats check`: one row for each check, with the verdict, the subject and an explanation.
#pragma once

#include <string>

#include "console/table.h"

namespace cli
{

class findings
{
  public:
    void add_ok(const std::string& subject, const std::string& text) { rows_.push_back({"ok", subject, text}); }

    // Adds a row about a subject that a host does not need.
    void add_note(const std::string& subject, const std::string& text) { rows_.push_back({"note", subject, text}); }

    // Adds a row about a missing subject that a host needs. The text says what to do.
    void add_missing(const std::string& subject, const std::string& text)
    {
        rows_.push_back({"MISSING", subject, text});
        is_fit_ = false;
    }

    bool is_fit() const { return is_fit_; } // nothing is missing
    const console::table_rows& rows() const { return rows_; }

  private:
    console::table_rows rows_;
    bool is_fit_ = true;
};

} // namespace cli
