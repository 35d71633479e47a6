// Inside quarantine/: what is known of messages, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "daemons/quarantine/kept.h"

// A line each below a heading; long texts are cut, controls shown as '?'.
std::string EntriesAsTable(const std::vector<quarantine::KeptMessage>& messages);
// An object a line, with all that is known.
std::string EntryAsJson(const quarantine::KeptMessage& message);
// The same, a line a field, for a person.
std::string EntryAsText(const quarantine::KeptMessage& message);
