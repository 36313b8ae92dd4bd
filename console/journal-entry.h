// Sends entries to systemd's journal, with libsystemd.
#pragma once

#include <string>
#include <vector>

namespace console
{

// False: a build without libsystemd.
bool can_send_journal_entries();

// Sends an entry of fields "NAME=value". False: the journal did not take it. Any thread; may wait for the journal.
bool send_journal_entry(const std::vector<std::string>& fields);

} // namespace console
