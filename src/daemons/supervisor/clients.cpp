// Those who ask over the control socket, and the controls that they hand on.
#include <cerrno>

#include "daemons/supervisor/supervision.h"

using platform::ServiceMessage;
using platform::ServiceMessageKind;
using platform::UniqueDescriptor;

void Supervision::Answer(int client, DWORD error) {
    platform::SendServiceMessage(client, {ServiceMessageKind::kReply, error, status_});
}

void Supervision::AnswerWaiting(DWORD error) {
    if (waiting_ >= 0) Answer(waiting_, error);
    waiting_ = -1;
    if (greeted_) requestEnd_.reset();
}

void Supervision::OnClient(UniqueDescriptor& client) {
    ServiceMessage message;
    if (!platform::ReceiveServiceMessage(client.Get(), message)) {
        if (errno == EAGAIN) return;
        if (client.Get() == waiting_) waiting_ = -1;
        client.Reset();
        return;
    }
    if (message.kind == ServiceMessageKind::kQuery) return Answer(client.Get(), 0);
    if (message.kind != ServiceMessageKind::kControl) return;
    const DWORD error = Control(client, message.value);
    if (waiting_ != client.Get()) Answer(client.Get(), error);
}

// Hands a control on; the client then waits. Otherwise the error, or 0 if it is dealt with.
DWORD Supervision::Control(const UniqueDescriptor& client, DWORD control) {
    if (control < SERVICE_CONTROL_STOP || control > SERVICE_CONTROL_INTERROGATE)
        return ERROR_INVALID_PARAMETER;
    if (status_.dwCurrentState == SERVICE_STOPPED) return ERROR_SERVICE_NOT_ACTIVE;
    if (restartAt_ && control == SERVICE_CONTROL_STOP) {
        restartAt_.reset();
        SetState(SERVICE_STOPPED, 0);
        Finish();
        return 0;
    }
    static constexpr DWORD kNeeded[] = {0, SERVICE_ACCEPT_STOP, SERVICE_ACCEPT_PAUSE_CONTINUE,
                                        SERVICE_ACCEPT_PAUSE_CONTINUE, 0};
    const bool pending = status_.dwCurrentState == SERVICE_START_PENDING ||
                         status_.dwCurrentState == SERVICE_STOP_PENDING;
    if (!program_ || !greeted_ || waiting_ >= 0 ||
        (pending && control != SERVICE_CONTROL_INTERROGATE))
        return ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    if ((status_.dwControlsAccepted & kNeeded[control]) != kNeeded[control])
        return ERROR_INVALID_SERVICE_CONTROL;
    if (!platform::SendServiceMessage(program_.Get(), {ServiceMessageKind::kControl, control, {}}))
        return ERROR_SERVICE_REQUEST_TIMEOUT;
    stopAsked_ = stopAsked_ || control == SERVICE_CONTROL_STOP;
    waiting_ = client.Get();
    requestEnd_ = Clock::now() + kRequestLimit;
    return 0;
}
