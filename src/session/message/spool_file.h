// The file of the message in hand: its name, its modes, and its end. A session has one at a time;
// each message gets a new number, and the file of the message before goes with it.
#pragma once

#include <string>

#include "platform/file.h"
#include "platform/socket.h"

class SpoolFile {
  public:
    SpoolFile() = default;
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;
    ~SpoolFile() { Remove(); }

    // Names the files after the client's socket, whose number no other live session has. False if
    // the name doesn't fit.
    bool Name(SOCKET client);
    // Removes the file of the message before, goes to the next number and makes its file, empty and
    // open for writing. False if it can't be made.
    bool OpenNext();
    // Opens the file of the message in hand again, to add to it.
    bool OpenAgain();
    // False: nothing more can be stored, the disk is full as a rule.
    bool Write(const void* data, std::size_t length);
    // False if the system tells only now that something could not be stored.
    bool Close() { return file_.Close(); }
    // Also closes it. No file is no failure.
    void Remove();

    // What has been written to the message in hand.
    long long Size() const { return size_; }
    // For the scan daemon, which opens the file by it.
    std::string Path() const;

  private:
    std::string stem_;
    int number_ = 0;
    bool present_ = false;
    long long size_ = 0;
    platform::File file_;
};

// The group that may read the spool besides its owner, for a scan daemon that runs as another user;
// -1: none. Any thread.
void SetSpoolGroup(int group);
// Removes what an earlier process left in the spool directory. Before any session.
void CleanSpoolDirectory();
