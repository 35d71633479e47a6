// Files of the instance that strangers' bytes go to: made exclusively, never through a link,
// readable by their owner (and one configured group) alone. And the small path operations around
// them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/descriptor.h"
#include "platform/types.h"

#ifndef _WIN32
// The directory for temporary files, with a final separator, zero-terminated: tmp/ of the instance.
// Its length, or 0 if there is none or it doesn't fit.
DWORD GetTempPathA(DWORD size, LPSTR buffer);
// Makes one directory, for its owner alone. FALSE with ERROR_ALREADY_EXISTS if it exists.
BOOL CreateDirectoryA(LPCSTR path, LPSECURITY_ATTRIBUTES);
BOOL DeleteFileA(LPCSTR path);
// The full path of the running program. Its length; 0 on failure; size if it was cut.
DWORD GetModuleFileNameA(HANDLE module, LPSTR buffer, DWORD size);
#endif

namespace platform {

#ifdef _WIN32
inline constexpr char kSeparator = '\\';
#else
inline constexpr char kSeparator = '/';
#endif

// What tells one state of a file from another.
struct FileState {
    bool plain = false;  // not a directory, pipe or device
    std::uint64_t size = 0;
    std::int64_t written = 0;  // nanoseconds since 1970
    std::uint64_t number = 0;  // another one when the file has been replaced
    // As `written`, of the last change of anything about it, which nobody can put back.
    std::int64_t changed = 0;
    std::uint64_t names = 0;  // by which it can be found
    bool operator==(const FileState&) const = default;
};
// That of the file or whatever else is there, behind links too. Nothing if it can't be looked at.
std::optional<FileState> LookAtFile(const std::string& path);

// Owner of an open file. One thread at a time. Reads and writes are unbuffered.
class File {
  public:
    File() = default;
    // A new file for reading, and for writing at its end; fails if anything of that name exists.
    // With a group, the group may read it.
    static File CreateExclusive(const char* path, int group);
    // For the same, of one that is there.
    static File OpenAppend(const char* path);
    static File OpenRead(const char* path);

    explicit operator bool() const { return static_cast<bool>(descriptor_); }
    int Descriptor() const { return descriptor_.Get(); }
    // The size in bytes, or -1, also of what is no plain file.
    long long Size() const;
    // Nothing if it can't be had.
    std::optional<FileState> State() const;
    // Writes all, or gives false (disk full, quota, I/O error).
    bool Write(const void* data, std::size_t length);
    // Puts this in the place of all that it holds. False as above, or if that isn't all that it
    // holds then. What is no longer than before takes no room anew, and costs a small part of what
    // it costs to empty a file and to fill it.
    bool Replace(std::string_view bytes);
    // The count, 0 at the end, -1 on failure.
    long long Read(void* buffer, std::size_t length);
    // The same from a position, which the next Read knows nothing of.
    long long ReadAt(long long offset, void* buffer, std::size_t length) const;
    // Whether it begins with these bytes.
    bool BeginsWith(std::string_view bytes) const;
    bool MakeEmpty();
    // Its state if nobody else has it: the name is its only one, and it is open here alone. Nothing
    // also where that can't be known. From the first call on the process ignores SIGIO.
    std::optional<FileState> OnlyOurs(const char* name) const;
    // False if the system reports a late write error.
    bool Close();
    // The same, but it stays open.
    bool Settle();

    // Takes over a descriptor; -1: none.
    explicit File(int descriptor) : descriptor_(descriptor) {}

  private:
    File(int descriptor, bool atEnd) : descriptor_(descriptor), atEnd_(atEnd) {}
    bool SetAppending(bool appending);

    UniqueDescriptor descriptor_;
    bool atEnd_ = false;      // Write writes at its end, wherever that is by then
    bool appending_ = false;  // so does the system
};

// Gives a file a second name, in the same file system. False if that can't be done, or is taken.
bool LinkFile(const std::string& path, const std::string& name);
// Reads a small file of the instance whole (1 MiB at most). False if it can't be read.
bool ReadWholeFile(const std::string& path, std::string& text);
// Puts a new file, for its owner alone, in the place of an old one; readers see the one or the
// other, whole. With onlyNew it fails with EEXIST if there is one. False with errno.
bool PutFile(const std::string& path, const std::string& text, bool onlyNew);

// The number of a group by its name, or -1.
int GroupNumber(const char* name);
// Lets the group read (and list) a directory of ours. Silent if it can't.
void ShareDirectory(const char* path, int group);
// Removes the plain files of a directory whose names begin with prefix. For leavings of an earlier
// process.
void RemoveFiles(const std::string& directory, const char* prefix);
// Whether this process may make files in a directory.
bool MayMakeFiles(const char* directory);
bool HasSubdirectory(const std::string& directory);

// Held while one process serves a name in this instance; the lock goes with the process.
class InstanceLock {
  public:
    // Takes services/NAME.lock. False if another process holds it, or it can't be made.
    bool Take(const char* name);
    // Why not, for a person.
    const std::string& Error() const { return error_; }

  private:
    File file_;
    std::string error_;
};

// Lets the process open as many descriptors as the system allows it.
void RaiseDescriptorLimit();

}  // namespace platform
