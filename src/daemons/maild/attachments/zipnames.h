// Inside attachments/: the names that stand before the files of a zip.
#pragma once

#include <functional>
#include <string>

namespace maild {

// Reads the file from its start and hands over each name that stands behind the mark of a file.
// False if it can't be read, or once `use` gives false.
bool ForEachLocalName(int file, const std::function<bool(const std::string& name)>& use);

}  // namespace maild
