#include "daemons/maild/actions/edits.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace maild {

namespace {

bool Copy(int file, Range range, platform::File& to) {
    std::vector<char> block(65536);
    while (range.begin < range.end) {
        const auto wanted = static_cast<std::size_t>(
            std::min<long long>(range.end - range.begin, static_cast<long long>(block.size())));
        const ssize_t count = pread(file, block.data(), wanted, range.begin);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0 || !to.Write(block.data(), static_cast<std::size_t>(count))) return false;
        range.begin += count;
    }
    return true;
}

// Its modes and group, so that whoever could read the old file can read the new one.
bool TakeModes(const struct stat& old, platform::File& made) {
    struct stat now {};
    if (fstat(made.Descriptor(), &now) != 0) return false;
    if (now.st_gid != old.st_gid &&
        fchown(made.Descriptor(), static_cast<uid_t>(-1), old.st_gid) != 0)
        return false;
    return fchmod(made.Descriptor(), old.st_mode & 0777U) == 0;
}

// Exchanges them, so that a path that is gone meanwhile stays so: a file that nobody waits for
// would stay in the spool. Where the file system can't, only a look tells.
bool TakePlace(const std::string& made, const std::string& path, const struct stat& old) {
    struct stat now {};
    if (lstat(path.c_str(), &now) != 0) return false;
    if (now.st_ino != old.st_ino || now.st_dev != old.st_dev) {
        errno = ESTALE;
        return false;
    }
    if (renameat2(AT_FDCWD, made.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0) {
        unlink(made.c_str());
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) return false;
    return std::rename(made.c_str(), path.c_str()) == 0;
}

bool IsPlace(const Edit& edit) { return edit.range.begin == edit.range.end; }

}  // namespace

std::string Stuffed(std::string_view text, Dots dots) {
    if (dots == Dots::kPlain) return std::string(text);
    std::string stuffed;
    bool begins = true;
    for (const char c : text) {
        if (begins && c == '.') stuffed += '.';
        stuffed += c;
        begins = c == '\n';
    }
    return stuffed;
}

void Edits::Add(Edit edit) {
    const auto behind =
        std::upper_bound(edits_.begin(), edits_.end(), edit, [](const Edit& a, const Edit& b) {
            // What is put in stands in front of what is taken out at the same place.
            return a.range.begin != b.range.begin ? a.range.begin < b.range.begin
                                                  : IsPlace(a) && !IsPlace(b);
        });
    edits_.insert(behind, std::move(edit));
}

bool Edits::Apply(int file, long long size, platform::File& to) const {
    long long at = 0;
    for (const Edit& edit : edits_) {
        if (edit.range.begin < at) continue;
        if (edit.range.end > size || edit.range.end < edit.range.begin) return false;
        if (!Copy(file, {at, edit.range.begin}, to) ||
            !to.Write(edit.text.data(), edit.text.size()))
            return false;
        at = edit.range.end;
    }
    return Copy(file, {at, size}, to);
}

bool ReplaceStored(const std::string& path, int file, const Edits& edits, std::string& why) {
    const std::string beside = path + ".new";
    const auto fail = [&](const char* what) {
        why = std::string(what) + ": " + std::strerror(errno);
        unlink(beside.c_str());
        return false;
    };
    struct stat old {};
    if (fstat(file, &old) != 0) return fail("can't look at the message");
    unlink(beside.c_str());  // of a process that was killed
    platform::File made = platform::File::CreateExclusive(beside.c_str(), -1);
    if (!made) return fail("can't make a file in the spool");
    if (!TakeModes(old, made)) return fail("can't give the changed message its group");
    errno = 0;
    if (!edits.Apply(file, old.st_size, made) || !made.Close())
        return fail("can't write the changed message");
    if (!TakePlace(beside, path, old)) return fail("can't replace the message");
    return true;
}

}  // namespace maild
