// Inside forms/: what only the list of a 7z archive's files says, where that list is packed.
#pragma once

// Reads the list of the 7z archive in the file, which stands at its start. True if each file in it
// that has any bytes is encrypted; false also if the list can't be read, or is too long. Any
// thread.
bool SevenZipEncrypted(int file);
