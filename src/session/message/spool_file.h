// The file of the message in hand: its name, its modes, and its end. A session has one at a time;
// each message gets a new number, and the file of the message before goes with it.
//
// A small message stays in memory as well: it goes to its file in one write, and needn't be read
// back as long as nobody has changed the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file.h"
#include "platform/socket.h"
#include "session/message/spare_files.h"

class SpoolFile {
  public:
    SpoolFile() = default;
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;
    ~SpoolFile() { Remove(); }

    // Names the files after the client's socket, whose number no other live session has, and
    // numbers them from 1 on. False if the name doesn't fit.
    bool Name(SOCKET client);
    // Removes the file of the message before, goes to the next number and makes its file, empty and
    // open for writing. False if it can't be made.
    bool OpenNext();
    // Whether something can be added to the file of the message in hand.
    bool OpenAgain();
    // False: nothing more can be stored, the disk is full as a rule. What is written may wait for
    // Close.
    bool Write(std::string_view bytes);
    // Everything is in the file then. False if something could not be stored, or isn't there any
    // more.
    bool Close();
    // No file is no failure. Throws nothing.
    void Remove();

    // The scan has been given up, and may still go on: the file's name will be no other message's,
    // whatever session gets the number of this one's socket. Nor is its file used again: it may be
    // that the daemon couldn't read it.
    void KeepName();

    // The file of another message is as unreadable as one that can't be read, and so is one that
    // has gone with the spool's directories: gone is what the daemon has taken away.
    enum class Found { kWhole, kGone, kUnreadable };
    // What there is of the message behind the scan, during which the daemon may have changed it or
    // taken it away: Size, Kept and File are about that from here on.
    Found LookAgain();
    // What has been written to the message in hand.
    long long Size() const { return size_; }
    // All of the message if it is still in memory.
    std::optional<std::string_view> Kept() const;
    // Otherwise: open for reading.
    const platform::File& File() const { return changed_ ? changed_ : spare_.file; }
    // For the scan daemon, which opens the file by it.
    const std::string& Path() const { return path_; }

  private:
    Found LookAtAnother();
    bool NameAloneIsGone() const;
    void RemoveOwn();
    bool Store();
    // What is in memory.
    void Forget();

    std::string stem_;
    int number_ = 0;
    std::string path_;  // of the message in hand: it can be removed without memory
    bool present_ = false;
    long long size_ = 0;
    std::uint64_t counted_ = 0;  // bytes of it among those of the spool
    // The message's file. With a path it is one for many messages, and stays open; it has the
    // message's name beside its own.
    SpareFile spare_;
    platform::File changed_;  // what has been found instead of it
    // The message from its first byte on, as long as it is small; what is in front of stored_ is in
    // the file.
    std::string kept_;
    std::size_t stored_ = 0;
    bool keeping_ = false;
    bool scanFailed_ = false;
};

// The group that may read the spool besides its owner, for a scan daemon that runs as another user;
// -1: none. Any thread.
void SetSpoolGroup(int group);
// Removes what an earlier process left in the spool directory. Before any session.
void CleanSpoolDirectory();
