// session/: one CSMTPProxy and one task (platform/task.h) a client connection. Read it along a
// message's road: conversation.h, dialogue/ (commands and replies), message/ (into the spool file,
// scan, and on to the server), address/ (what a path means); what these share is in peers.h and
// envelope.h.
//
// A session is made on the host's thread (CreateSession, ApplyInterface, SetConnectionCounter,
// Start) and belongs to its own task from Start on, which destroys it. Results of the phases: 1
// go on, 0 end the session.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "net/stream.h"
#include "session/conversation.h"
#include "session/interface.h"
#include "session/message/spool_file.h"
#include "session/peers.h"
#include "session/registry.h"
#include "session/server/connector.h"
#include "session/settings.h"

class CSMTPProxy : private CommandSource, private ConnectWatch {
  public:
    explicit CSMTPProxy(SOCKET client) : clientSocket_(client), clientHandle_(client) {}
    CSMTPProxy(const CSMTPProxy&) = delete;
    CSMTPProxy& operator=(const CSMTPProxy&) = delete;
    virtual ~CSMTPProxy() = default;

    // Copies the settings of the interface; no pointer into it is kept. scanLimit: what the scan
    // daemon takes, in bytes; 0: no limit is known.
    void ApplyInterface(const NetworkInterface& interface, long long scanLimit);
    // The counter must outlive the session.
    void SetConnectionCounter(std::atomic<std::int32_t>* counter) { connectionCounter_ = counter; }
    // Counts it in here until it is counted there, or has ended: a burst is admitted before the
    // first of its sessions has come to count itself. The counter must outlive the session.
    void SetArrivalCounter(std::atomic<std::int32_t>* counter) { arrival_ = CountPlace(counter); }
    // Starts the session's task. 0 (also if it runs already), or -1.
    int Start();
    // The whole session, in its task. Always 0.
    int RunSession();

    // Called by the registry under its lock, from the host's thread.
    void RequestStop();
    void Cut();
    SessionView View() const;

  private:
    friend std::unique_ptr<CSMTPProxy> CreateSession(SOCKET socket);

    class Interruptible;

    Stream::Line ReadCommand(std::string_view& line, std::size_t limit) override;
    bool Handshake(const TlsContext& context) override;
    bool Trying(SOCKET socket) override;
    void Failed() override;
    bool Wanted() override;

    // The road to the dialogue (opening.cpp). Who the client is: false ends the session.
    bool LearnClient();
    // Judges the client's address.
    bool IsClientDenied();
    // From the connection to the server to the end of the dialogue.
    void Serve();
    bool SecureWrapped();
    bool OpenServer();
    bool ConnectToServer();
    void SetConnecting(bool connecting);
    void DropServer();
    // The client's only reply where there is no server.
    void AnswerOutage(ConnectFailure failure);
    // The same where the connection was lost before the server said a word.
    void AnswerLoss(const std::string& reason);

    SessionSettings settings_;
    bool configured_ = false;
    bool started_ = false;
    std::atomic<std::int32_t>* connectionCounter_ = nullptr;
    CountPlace arrival_;
    CSocket clientSocket_;
    CSocket serverSocket_;
    Stream client_;
    ServerLink server_{settings_};
    Peers peers_{settings_, client_, server_};
    SpoolFile spool_;
    bool nobodyTold_ = false;  // somebody trusted speaks for itself: a health check

    // For the registry: whether the task waits for a command, whether it shall end, and the
    // sockets to cut. A socket is closed only after its handle has been taken out of here.
    std::atomic<bool> waitingForCommand_{false};
    std::atomic<bool> stopRequested_{false};
    std::mutex handleMutex_;
    SOCKET clientHandle_ = 0;  // guarded by handleMutex_, as the next
    SOCKET serverHandle_ = 0;
    bool connecting_ = false;  // guarded by handleMutex_: nothing of the client's is at the server
};

// Makes the session of an accepted socket, which passes into its care. Null if it can't be made:
// the socket then stays with the caller.
std::unique_ptr<CSMTPProxy> CreateSession(SOCKET socket);
