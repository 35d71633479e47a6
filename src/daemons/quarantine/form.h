// Inside quarantine/: the form of ID.meta.
//
// A line a field, `name: value`. In a value a backslash, and bytes that are no printable ASCII, are
// `\xHH`, so that no value has a line end.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "daemons/quarantine/kept.h"

namespace quarantine {

std::string WriteForm(const KeptMessage& message);
// Unknown fields count for nothing, missing ones are empty. Nothing without an id.
std::optional<KeptMessage> ReadForm(std::string_view text);

}  // namespace quarantine
