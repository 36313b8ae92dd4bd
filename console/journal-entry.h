// Sends entries to systemd's journal, with libsystemd.
#pragma once

#include <string>
#include <vector>

namespace console
{

// Returns true in a build with libsystemd.
bool can_send_journal_entries();

// Sends an entry with these fields; each has the form "NAME=value". Returns false if the journal did not accept the
// entry, and in a build without libsystemd. Any thread; may wait for the journal.
bool send_journal_entry(const std::vector<std::string>& fields);

} // namespace console
