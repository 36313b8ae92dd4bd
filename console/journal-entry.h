// Sends entries to systemd's journal, with libsystemd.
#pragma once

#include <string>
#include <vector>

namespace console
{

// Returns false in a build without libsystemd.
bool can_send_journal_entries();

// Sends an entry with fields "NAME=value". Returns false if the journal did not accept it. Any thread; may wait for the
// journal.
bool send_journal_entry(const std::vector<std::string>& fields);

} // namespace console
