// What `setup` makes of a person's wishes.
#pragma once

#include <string>

#include "host/setup/wishes.h"
#include "trelis/admin.h"

inline constexpr char kSetupInterface[] = "net";

// The keys of the interface, all that differ from their defaults and those that belong to a server
// on the Internet. hostName: as the host calls itself; a name without a domain isn't told to the
// world. allAddresses: the IPAddress that stands for all that this host has.
trelis::Values PlanInterface(const SetupWishes& wishes, const std::string& hostName,
                             const std::string& allAddresses);
// What is wrong with a value by the table of keys, or empty.
std::string FindFaultInPlan(const trelis::Values& plan);
// Whether an interface, as it is in the store, says no more than `register` has written: nobody has
// configured it yet, and it takes no mail.
bool IsUntouched(const trelis::Values& interface);
