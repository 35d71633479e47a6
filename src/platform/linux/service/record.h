// Inside platform/: a service's record, the files beside it, and the messages between the manager's
// parts.
//
//   services/NAME.conf     the record: lines of "key value" (text; '%', line ends coded as %XX)
//   services/NAME.run      locked by the supervisor as long as it lives
//   services/NAME.sock     the supervisor's control socket
//   services/NAME.status   the last status, for people and for the time after the supervisor
//   services/NAME.out      what the program has printed since it was last started
//
// Control socket and the socket between supervisor and program carry packets (SOCK_SEQPACKET), each
// one ServiceMessage as it lies in memory: both ends are of one build on one machine.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/service.h"

namespace platform {

// The descriptor of a started program's socket to its supervisor.
inline constexpr char kServiceSocketVariable[] = "VANTREL_SERVICE_SOCKET";
inline constexpr int kServiceSocket = 3;
// What a supervisor is started with.
inline constexpr int kSupervisorLock = 3;    // services/NAME.run, locked
inline constexpr int kSupervisorReport = 4;  // takes one DWORD: how the first start went
inline constexpr char kSupervisorProgram[] = "vtservice";
inline constexpr DWORD kServiceRequestLimit = 30000;  // milliseconds

struct ServiceRecord {
    std::string name;
    std::string displayName;
    std::string description;
    std::string path;
    std::vector<std::string> dependencies;
    DWORD type = SERVICE_WIN32_OWN_PROCESS;
    DWORD startType = SERVICE_AUTO_START;
    DWORD errorControl = SERVICE_ERROR_NORMAL;
    bool restart = false;    // when it dies
    DWORD restartDelay = 0;  // milliseconds
};

// Letters, digits, '-', '_'; at most 64.
bool ValidServiceName(const char* name);
std::string ServiceFile(const std::string& name, const char* suffix);
// In the folder services/.
inline std::string ServiceSocketName(const std::string& name) { return name + ".sock"; }
std::optional<ServiceRecord> ReadServiceRecord(const std::string& name);
// With onlyNew a record that exists stays as it is (ERROR_SERVICE_EXISTS). False: the last error
// says why.
bool WriteServiceRecord(const ServiceRecord& record, bool onlyNew);

enum class ServiceMessageKind : DWORD {
    kHello = 1,    // program: the dispatcher has been entered
    kStatus = 2,   // program: its status
    kControl = 3,  // client or supervisor: value is the control code
    kDone = 4,     // program: its handler has returned
    kQuery = 5,    // client
    kReply = 6,    // supervisor: value is an error or 0, with the status
};
struct ServiceMessage {
    ServiceMessageKind kind{};
    DWORD value = 0;
    SERVICE_STATUS status{};
};
// False on failure; never waits for room, never raises a signal.
bool SendServiceMessage(int socket, const ServiceMessage& message);
// Takes one packet without waiting. False with errno EAGAIN if there is none, else because it is no
// message or the peer has gone.
bool ReceiveServiceMessage(int socket, ServiceMessage& message);

// The status of a service that does not run, from its status file.
SERVICE_STATUS ReadStoppedStatus(const std::string& name);
void WriteStatusFile(const std::string& name, const SERVICE_STATUS& status, int process);

}  // namespace platform
