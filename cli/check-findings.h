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

    // Adds a row about something that is missing or wrong, but that a host does not need.
    void add_note(const std::string& subject, const std::string& text) { rows_.push_back({"note", subject, text}); }

    // Adds a row about something that is missing or wrong, and that a host needs. `text` says what to do.
    void add_missing(const std::string& subject, const std::string& text)
    {
        rows_.push_back({"MISSING", subject, text});
        is_fit_ = false;
    }

    bool is_fit() const { return is_fit_; } // true if add_missing() was never called
    const console::table_rows& rows() const { return rows_; }

  private:
    console::table_rows rows_;
    bool is_fit_ = true;
};

} // namespace cli
