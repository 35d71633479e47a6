#include "session/session.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "asfilters/asfilters.h"
#include "libstats/libstats.h"
#include "session/normalize.h"
#include "session/registry.h"

namespace {

constexpr char kSpoolDirectory[] = "VTNP";
constexpr char kSpoolPrefix[] = "VTSMTP";
constexpr int kReceiveBuffer = 32768;
constexpr int kNoopReplySize = 1023;
std::atomic<int> g_spoolGroup{-1};

std::string SpoolDirectory() {
    char path[4096];
    return GetTempPathA(sizeof path, path) == 0 ? std::string()
                                                : std::string(path) + kSpoolDirectory;
}

void MakeSpoolDirectory() {
    const std::string directory = SpoolDirectory();
    if (CreateDirectoryA(directory.c_str(), nullptr) != FALSE)
        platform::ShareDirectory(directory.c_str(), g_spoolGroup);
}

// Raised to what bulk reception wants, never lowered: a fixed size below the system's would stop
// its own tuning.
void RaiseReceiveBuffer(SOCKET socket) {
    int size = 0;
    socklen_t length = sizeof size;
    if (getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, &length) == 0 && size >= kReceiveBuffer)
        return;
    size = kReceiveBuffer;
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

DWORD SessionThread(LPVOID argument) {
    if (argument == nullptr) return 0;
    std::unique_ptr<CSMTPProxy> session(static_cast<CSMTPProxy*>(argument));
    try {
        session->RunSession();
    } catch (...) {  // the thread ends quietly, whatever it was
    }
    session.reset();
    SessionRegistry::Instance().Done();
    return 0;
}

bool HasLetter(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); });
}

}  // namespace

std::unique_ptr<CSMTPProxy> CreateSession(SOCKET socket) {
    try {
        auto session = std::make_unique<CSMTPProxy>(socket);
        if (!session->PrepareSpool()) {
            session->clientSocket = CSocket();
            return nullptr;
        }
        RaiseReceiveBuffer(socket);
        return session;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void SetSpoolGroup(int group) { g_spoolGroup = group; }

void CleanSpoolDirectory() {
    const std::string directory = SpoolDirectory();
    if (!directory.empty()) platform::RemoveFiles(directory, kSpoolPrefix);
}

bool CSMTPProxy::PrepareSpool() {
    const std::string directory = SpoolDirectory();
    if (directory.empty()) return false;
    // Made by the first session; one that is missing later, or can't be made, shows when a file is
    // opened in it.
    static std::once_flag made;
    std::call_once(made, MakeSpoolDirectory);
    spoolStem =
        directory + platform::kSeparator + kSpoolPrefix + std::to_string(clientSocket.Handle());
    return spoolStem.size() < kSpoolStemSize;
}

void CSMTPProxy::ApplyInterface(const NetworkInterface& interface) {
    greetingName = interface.GreetingDomainName;
    forwardHost = interface.ServerToForward;
    while (!forwardHost.empty() && (forwardHost.back() == '\r' || forwardHost.back() == '\n'))
        forwardHost.pop_back();
    forwardPort = kDefaultForwardPort;
    if (const std::size_t colon = forwardHost.find(':'); colon != std::string::npos) {
        forwardPort = static_cast<std::uint16_t>(std::atoi(forwardHost.c_str() + colon + 1));
        forwardHost.resize(colon);
    }
    configured = 1;
    noopInterval = static_cast<std::uint32_t>(interface.TimeoutBetweenNOOPs);
    connectionTimeout = static_cast<std::uint32_t>(interface.ConnectionTimeout);
    relayNetworks = interface.RelayNetworks;
    mailDomains = interface.MailDomains;
}

int CSMTPProxy::Start() {
    if (started_) return 0;
    if (!SessionRegistry::Instance().Enter(this)) return -1;
    started_ = true;
    clientHandle_ = clientSocket.Handle();
    // The new thread may end, and the object with it, before StartThread returns: nothing of it is
    // touched then, and its handle is not kept.
    if (StartThread(nullptr, SessionThread, this) == 0) return 0;
    started_ = false;
    SessionRegistry::Instance().Leave(this);
    SessionRegistry::Instance().Done();
    return -1;
}

void CSMTPProxy::RequestStop() {
    stopRequested_ = true;
    if (!waitingForCommand_) return;
    if (const SOCKET client = clientHandle_; client != 0) shutdown(client, 0);
}

void CSMTPProxy::Cut() {
    for (const SOCKET socket : {clientHandle_.load(), serverHandle_.load()}) {
        if (socket != 0) shutdown(socket, SD_BOTH);
    }
}

int CSMTPProxy::ReadCommand(char* line, int& length, int size) {
    // Either this thread sees the request, or the requester sees it waiting.
    waitingForCommand_ = true;
    const int result =
        stopRequested_ ? 0 : clientSocket.ReadLine(line, length, size, connectionTimeout);
    waitingForCommand_ = false;
    return result;
}

bool CSMTPProxy::IsPeerDenied(const SocketAddress& peer) {
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text) == nullptr) {
        peerAddress = "Unknown";
        return false;
    }
    peerAddress = text;
    const std::shared_ptr<asfilters::CASFilters> filters = ShareASFilters();
    if (filters == nullptr || filters->CheckIP(peerAddress.c_str()) != 2) return false;
    SendStatEvent(80, nullptr, nullptr);
    return true;
}

int CSMTPProxy::RunSession() {
    SocketAddress peer{};
    clientSocket.GetPeerAddress(peer);
    relayAllowed = std::any_of(relayNetworks.begin(), relayNetworks.end(),
                               [&peer](const RelayNetwork& network) {
                                   return network.address == (network.mask & peer.sin_addr.s_addr);
                               });
    bool counted = false;
    try {
        if (!IsPeerDenied(peer)) {
            ++*connectionCounter;
            counted = true;
            if (ConnectToServer() != 0) {
                int expectReply = 1;
                while (CommandDialogue(&expectReply) != 0 && RelayMessage(&expectReply) != 0) {
                }
            }
        }
    } catch (...) {  // memory ran out: an ordinary end
    }
    if (counted) --*connectionCounter;
    // A message that was abandoned between two chunks, or by an exception. The file has its name
    // from the client's socket, whose number the next session may get.
    RemoveSpoolFile();
    // From here on the sockets' numbers may soon be others'.
    SessionRegistry::Instance().Leave(this);
    clientSocket.Shutdown();
    clientSocket.Close();
    serverSocket.Shutdown();
    serverSocket.Close();
    return 0;
}

int CSMTPProxy::ConnectToServer() {
    if (configured == 0) return 0;
    SocketAddress address{};
    if (HasLetter(forwardHost)) {
        address = ResolveHost(forwardHost.c_str(), forwardPort);
    } else {
        address.sin_family = AF_INET;
        address.sin_port = htons(forwardPort);
        address.sin_addr.s_addr = inet_addr(forwardHost.c_str());
    }
    if (!serverSocket.Create(1)) return 0;
    serverHandle_ = serverSocket.Handle();
    if (serverSocket.Connect(address)) return 1;
    serverHandle_ = 0;
    serverSocket.Shutdown();
    serverSocket.Close();
    return 0;
}

int ReadReply(CSocket& server, char* buffer, int size, std::uint32_t seconds) {
    int length = 0;
    do {
        if (server.ReadLine(buffer, length, size, seconds) == 0) return 0;
        // A line too short for a code belongs to what comes.
    } while (length < 3 || (length > 3 && buffer[3] == '-'));
    return 1;
}

int KeepAlive(void* context) {
    auto* session = static_cast<CSMTPProxy*>(context);
    if (session == nullptr) return 255;
    // What it answers doesn't matter, but all of it has to be taken, or later replies would be one
    // behind.
    char reply[kNoopReplySize + 1];
    const bool alive =
        session->serverSocket.SendAll("NOOP\r\n") != 0 &&
        ReadReply(session->serverSocket, reply, kNoopReplySize, session->connectionTimeout) != 0 &&
        !session->clientSocket.HasException();
    session->peersLost = session->peersLost || !alive;
    return alive ? 0 : 255;
}

int CSMTPProxy::SendStatEvent(int eventCode, const char* sender, const char* recipient) {
    libstats::CLibStats* client = GetLibStats();
    libstats::CStatsRequest* record = client == nullptr ? nullptr : CreateStatsRequest();
    if (record == nullptr) return -1;
    record->SetTargetHost(peerAddress.c_str());
    record->SetSourceHost(peerAddress.c_str());
    record->SetAgentId(4);
    record->SetServiceId(22);
    record->SetEventCode(eventCode);
    record->SetObjectStatus(30);
    record->SetActionMask(62);
    if (sender != nullptr) record->SetSender(sender);
    if (recipient != nullptr) record->AddRecipient(recipient);
    client->PostRequest(record);
    FreeStatsRequest(record);
    return 0;
}

int CSMTPProxy::IsLocalRecipient(const char* text) const {
    return IsLocalRecipientOf(text, mailDomains);
}

void CSMTPProxy::ClearEnvelope() {
    savedMailLine.reset();
    FreeTextList(recipients);
    messagePhase = PHASE_NONE;
}

std::string CSMTPProxy::SpoolPath() const { return spoolStem + "x" + std::to_string(spoolNumber); }

platform::File CSMTPProxy::OpenNextSpoolFile() {
    RemoveSpoolFile();
    ++spoolNumber;
    const std::string path = SpoolPath();
    platform::File file = platform::File::CreateExclusive(path.c_str(), g_spoolGroup);
    if (!file) {
        // The instance's lock makes this process the only one here: whatever has the name is a
        // leaving. Or the directory has been cleared away.
        DeleteFileA(path.c_str());
        MakeSpoolDirectory();
        file = platform::File::CreateExclusive(path.c_str(), g_spoolGroup);
    }
    spoolFilePresent_ = static_cast<bool>(file);
    return file;
}

void CSMTPProxy::RemoveSpoolFile() {
    if (!spoolFilePresent_) return;
    DeleteFileA(SpoolPath().c_str());
    spoolFilePresent_ = false;
}
