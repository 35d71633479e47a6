// session/: one CSMTPProxy and one thread a client connection: the dialogue with client and server,
// the reception of a message into its spool file, its scan and its relay.
//
// A session is made on the host's thread (CreateSession, ApplyInterface, SetConnectionCounter,
// Start) and belongs to its own thread from Start on, which destroys it. Results of the phases: 1
// go on, 0 end the session.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "net/socket.h"
#include "platform/file.h"
#include "session/interface.h"

enum MessagePhase { PHASE_NONE = 0, PHASE_DATA = 1, PHASE_BDAT = 2 };
enum Verdict { VERDICT_FAILED = -1, VERDICT_FORWARD = 0, VERDICT_REJECT = 1, VERDICT_DROP = 2 };

using TextList = std::vector<std::string>;
inline void FreeTextList(TextList& list) { TextList().swap(list); }

// Width of the text fields, zero byte included.
inline constexpr std::size_t kSessionTextSize = 512;
inline constexpr std::size_t kSpoolStemSize = 260;
// One block of a message, on its way in and out.
inline constexpr int kBlockSize = 32768;
// The port of a forward server that is configured without one.
inline constexpr int kDefaultForwardPort = 10025;

class CSMTPProxy {
  public:
    explicit CSMTPProxy(SOCKET client) : clientSocket(client) {}
    CSMTPProxy(const CSMTPProxy&) = delete;
    CSMTPProxy& operator=(const CSMTPProxy&) = delete;
    virtual ~CSMTPProxy() = default;

    // Copies the settings of the interface; no pointer into it is kept.
    void ApplyInterface(const NetworkInterface& interface);
    // The counter must outlive the session.
    void SetConnectionCounter(std::atomic<std::int32_t>* counter) { connectionCounter = counter; }
    // Starts the session's thread. 0 (also if it runs already), or -1.
    int Start();
    // The whole session, on its thread. Always 0.
    int RunSession();

    // Called by the registry under its lock, from the host's thread.
    void RequestStop();
    void Cut();

    // Prepares the directory and the names of the spool files. False if they don't fit.
    bool PrepareSpool();

    int CommandDialogue(const int* expectReply);
    int RelayMessage(int* expectReply);
    int ReceiveData();
    int ReceiveChunk(int first, int size);
    int ConnectToServer();
    // Tells the statistics daemon of a filter's verdict. 0, or -1 if nothing could be sent.
    int SendStatEvent(int eventCode, const char* sender, const char* recipient);
    int IsLocalRecipient(const char* text) const;

    // Reads a client's command; a stop of the service ends the wait. 1, or 0.
    int ReadCommand(char* line, int& length, int size);
    // Forgets sender and recipients.
    void ClearEnvelope();

    int messagePhase = PHASE_NONE;
    int lastChunkSeen = 1;
    std::atomic<std::int32_t>* connectionCounter = nullptr;
    int configured = 0;
    std::vector<RelayNetwork> relayNetworks;
    TextList mailDomains;
    std::string redirectAddresses;  // ';' behind each
    std::string forwardHost;
    std::string greetingName;
    std::uint16_t forwardPort = 0;        // host order
    std::uint32_t noopInterval = 0;       // seconds
    std::uint32_t connectionTimeout = 0;  // seconds
    std::string spoolStem;
    int spoolNumber = 0;
    CSocket clientSocket;
    CSocket serverSocket;
    int relayAllowed = 0;
    std::string peerAddress;  // dotted, or "Unknown"
    TextList recipients;
    std::optional<std::string> savedMailLine;  // the client's sender command, line end included
    // A keep-alive has failed: a peer has gone, or the server is out of step. The session ends.
    bool peersLost = false;
    // Whether an EHLO reply of the server has ever offered CHUNKING in this session.
    bool serverTakesChunks = false;

  private:
    friend class MessageRelay;

    // Where a message's reception ends without one: closes and removes the file. Always 0.
    int Abandon(platform::File& file);

    std::string SpoolPath() const;
    // Removes the file of the message before, goes to the next number and makes its file.
    platform::File OpenNextSpoolFile();
    void RemoveSpoolFile();
    Verdict ScanMessage(const std::string& path);
    // Judges the client's address, and notes it as text.
    bool IsPeerDenied(const SocketAddress& peer);

    bool spoolFilePresent_ = false;
    bool started_ = false;
    // For the registry: whether the thread waits for a command, whether it shall end, and the
    // sockets to cut.
    std::atomic<bool> waitingForCommand_{false};
    std::atomic<bool> stopRequested_{false};
    std::atomic<SOCKET> clientHandle_{0};
    std::atomic<SOCKET> serverHandle_{0};
};

// Makes the session of an accepted socket, which passes into its care. Null if it can't be made:
// the socket then stays with the caller.
std::unique_ptr<CSMTPProxy> CreateSession(SOCKET socket);
// Sends NOOP to the server and reads its reply; looks at the client. 0 if all is well, else 255.
// The context is the session: the scan calls this while it waits.
int KeepAlive(void* session);
// The group that may read the spool besides its owner, for a scan daemon that runs as another user;
// -1: none.
void SetSpoolGroup(int group);
// Removes what an earlier process left in the spool directory. Before any session.
void CleanSpoolDirectory();

// Reads one whole reply of the server; the last line stays in buffer (size bytes). 1, or 0.
int ReadReply(CSocket& server, char* buffer, int size, std::uint32_t seconds);
